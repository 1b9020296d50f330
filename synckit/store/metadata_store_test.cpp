#include "synckit/store/metadata_store.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "synckit/base/metadata_store_error.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::thrownBy;

const Uuid kBrain = *Uuid::parse("11111111-2222-3333-4444-555555555555");
const Uuid kOther = *Uuid::parse("AAAAAAAA-2222-3333-4444-555555555555");
const Timestamp kWhen = *Timestamp::parse("2025-03-01T09:30:12.345Z");

NodeRecord file(std::string id, std::string path, const Uuid& brain = kBrain) {
  NodeRecord node;
  node.brainId = brain;
  node.nodeId = std::move(id);
  node.title = path.substr(path.find_last_of('/') + 1);
  node.path = std::move(path);
  node.updatedAt = kWhen;
  return node;
}

NodeRecord folder(std::string id, std::string path) {
  NodeRecord node = file(std::move(id), std::move(path));
  node.isDirectory = true;
  return node;
}

std::vector<std::string> paths(const std::vector<NodeRecord>& nodes) {
  std::vector<std::string> result;
  for (const auto& node : nodes) result.push_back(node.path);
  return result;
}

PendingChange change(PendingChangeKind kind, std::string path, const Uuid& brain = kBrain) {
  return PendingChange{std::nullopt,    brain,        std::nullopt, kind,
                       std::move(path), std::nullopt, std::nullopt, kWhen};
}

class MetadataStoreTest : public ::testing::Test {
 protected:
  testing::TemporaryDirectory directory;
  std::filesystem::path path = directory / "nested" / "sync.sqlite";
  std::unique_ptr<MetadataStore> store = MetadataStore::open(path);

  // A second connection, as the other process would have, for writing rows
  // the store itself never writes.
  void raw(const std::string& sql) {
    SQLiteDatabase db(path);
    db.execute(sql);
  }
};

TEST_F(MetadataStoreTest, MetaValuesCanBeSetReplacedAndRemoved) {
  EXPECT_EQ(store->metaValue(MetaKey::clientId), std::nullopt);
  store->setMeta(MetaKey::clientId, "c1");
  store->setMeta(MetaKey::clientId, "c2");
  store->setMeta(MetaKey::deviceName, "");
  EXPECT_EQ(store->metaValue(MetaKey::clientId), "c2");
  EXPECT_EQ(store->metaValue(MetaKey::deviceName), "");
  store->setMeta(MetaKey::clientId, std::nullopt);
  EXPECT_EQ(store->metaValue(MetaKey::clientId), std::nullopt);
  EXPECT_EQ(store->metaValue(MetaKey::deviceName), "");
}

TEST_F(MetadataStoreTest, BrainsKeepTheirCursor) {
  store->upsertBrain({kOther, "alpha", "Alpha", "c1"});
  store->upsertBrain({kOther, "alpha", "Renamed", std::nullopt});
  EXPECT_EQ(store->brain(kOther), (BrainRecord{kOther, "alpha", "Renamed", "c1"}));
  store->upsertBrain({kOther, "alpha", "Renamed", "c2"});
  EXPECT_EQ(store->cursor(kOther), "c2");

  store->upsertBrain({kBrain, "alpha", "Twin", std::nullopt});
  store->upsertBrain({Uuid::random(), "zulu", "Last", std::nullopt});
  auto all = store->brains();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].brainId, kBrain);  // same slug: ordered by id
  EXPECT_EQ(all[1].brainId, kOther);
  EXPECT_EQ(all[2].slug, "zulu");

  store->setCursor(kBrain, "c9");
  EXPECT_EQ(store->cursor(kBrain), "c9");
  store->setCursor(kBrain, std::nullopt);
  EXPECT_EQ(store->cursor(kBrain), std::nullopt);
  const Uuid unknown = Uuid::random();
  EXPECT_EQ(thrownBy<MetadataStoreError>([&] { store->setCursor(unknown, "c"); }),
            MetadataStoreError::unknownBrain(unknown));
  EXPECT_EQ(store->brain(unknown), std::nullopt);

  store->upsertNode(file("n", "a.txt"));
  store->deleteBrain(kBrain);
  EXPECT_EQ(store->brain(kBrain), std::nullopt);
  EXPECT_EQ(store->nodes(kBrain).size(), 1u);
}

TEST_F(MetadataStoreTest, NodesRoundTripAndChange) {
  NodeRecord full = file("n1", "docs/a.bin");
  full.kind = NodeKind::blob;
  full.blobHash = std::string(64, 'f');
  full.blobSize = 5'000'000'000;
  full.contentVersion = 7;
  full.localOnly = true;
  full.uploadError = "Too large";
  store->upsertNode(full);
  store->upsertNode(file("n2", "docs/b.txt"));
  EXPECT_EQ(store->nodeWithId(kBrain, "n1"), full);
  EXPECT_EQ(store->nodeAtPath(kBrain, "docs/a.bin"), full);
  EXPECT_EQ(store->nodeAtPath(kOther, "docs/a.bin"), std::nullopt);
  EXPECT_EQ(store->uploadErrorCount(kBrain), 1);

  full.uploadError.reset();
  full.blobHash.reset();
  full.title = "renamed";
  store->upsertNode(full);
  EXPECT_EQ(store->nodeWithId(kBrain, "n1"), full);
  EXPECT_EQ(store->uploadErrorCount(kBrain), 0);

  store->updateNodePath(kBrain, "n1", "docs/c.bin");
  EXPECT_EQ(store->nodeWithId(kBrain, "n1")->path, "docs/c.bin");
  EXPECT_EQ(paths(store->nodes(kBrain)), (std::vector<std::string>{"docs/b.txt", "docs/c.bin"}));
  EXPECT_TRUE(store->deleteNode(kBrain, "n1"));
  EXPECT_FALSE(store->deleteNode(kBrain, "n1"));
  EXPECT_EQ(store->nodeWithId(kBrain, "n1"), std::nullopt);
}

TEST_F(MetadataStoreTest, TreeQueriesRespectPathBoundaries) {
  for (const char* p : {"a", "a/b", "a/b/c", "ab", "a0", "b", "a/bc"}) {
    store->upsertNode(std::string(p).size() == 1 ? folder(p, p) : file(p, p));
  }
  store->upsertNode(file("other", "a/x", kOther));
  using Paths = std::vector<std::string>;
  EXPECT_EQ(paths(store->descendants(kBrain, "a")), (Paths{"a/b", "a/b/c", "a/bc"}));
  EXPECT_EQ(paths(store->children(kBrain, "a")), (Paths{"a/b", "a/bc"}));
  EXPECT_EQ(paths(store->children(kBrain, "a/b")), (Paths{"a/b/c"}));
  EXPECT_EQ(paths(store->children(kBrain, "")), (Paths{"a", "a0", "ab", "b"}));
  EXPECT_EQ(paths(store->subtree(kBrain, "a")), (Paths{"a", "a/b", "a/b/c", "a/bc"}));
  EXPECT_EQ(paths(store->subtree(kBrain, "a/b/c")), (Paths{"a/b/c"}));
  EXPECT_EQ(store->descendants(kBrain, "").size(), 7u);
  EXPECT_TRUE(store->children(kBrain, "zzz").empty());

  auto root = store->items(SyncItemIdentifier::root());
  EXPECT_TRUE(root.empty());
  store->upsertBrain({kBrain, "s", "S", std::nullopt});
  root = store->items(SyncItemIdentifier::root());
  ASSERT_EQ(root.size(), 1u);
  EXPECT_EQ(root[0].identifier(), SyncItemIdentifier::brain(kBrain));
  EXPECT_EQ(store->items(SyncItemIdentifier::brain(kBrain)).size(), 4u);
  auto inA = store->items(SyncItemIdentifier::node(kBrain, "a"));
  ASSERT_EQ(inA.size(), 2u);
  EXPECT_EQ(inA[0], SyncItem::node(*store->nodeAtPath(kBrain, "a/b")));
  EXPECT_TRUE(store->items(SyncItemIdentifier::node(kBrain, "a/b")).empty());  // a file
  EXPECT_EQ(store->item(SyncItemIdentifier::root()), std::nullopt);
}

TEST_F(MetadataStoreTest, TouchContentBumpsFilesOnly) {
  store->upsertNode(file("f", "f.txt"));
  store->upsertNode(folder("d", "d"));
  const auto anchor = store->currentAnchor();
  EXPECT_FALSE(store->touchContent(kBrain, "d"));
  EXPECT_FALSE(store->touchContent(kBrain, "missing"));
  EXPECT_EQ(store->currentAnchor(), anchor);
  EXPECT_EQ(store->nodeWithId(kBrain, "d")->contentVersion, 0);

  EXPECT_TRUE(store->touchContent(kBrain, "f"));
  EXPECT_TRUE(store->touchContent(kBrain, "f"));
  EXPECT_EQ(store->nodeWithId(kBrain, "f")->contentVersion, 2);
  auto set = store->changes(anchor);
  EXPECT_EQ(set.changed, (std::vector{SyncItem::node(*store->nodeWithId(kBrain, "f"))}));
  EXPECT_EQ(set.anchor, anchor + 2);
}

TEST_F(MetadataStoreTest, PendingChangesQueueInOrder) {
  PendingChange move = change(PendingChangeKind::move, "new/p");
  move.nodeId = "n1";
  move.fromPath = "old/p";
  move.baseCursor = "c1";
  const auto first = store->enqueue(change(PendingChangeKind::delete_, "x"));
  const auto second = store->enqueue(move);
  const auto third = store->enqueue(change(PendingChangeKind::mkdir, "d", kOther));
  EXPECT_LT(first, second);
  EXPECT_LT(second, third);

  move.id = second;
  EXPECT_EQ(store->pendingChange(second), move);
  EXPECT_EQ(store->pendingChanges().size(), 3u);
  auto ofBrain = store->pendingChanges(kBrain);
  ASSERT_EQ(ofBrain.size(), 2u);
  EXPECT_EQ(ofBrain[0].changeKind, PendingChangeKind::delete_);
  EXPECT_EQ(ofBrain[1], move);
  SQLiteDatabase db(path);
  EXPECT_EQ(db.query("SELECT change_kind FROM pending_changes ORDER BY id").at(0).string(0),
            "delete");

  store->setPendingBaseCursor(second, std::nullopt);
  store->setPendingPath(second, "newer/p");
  EXPECT_EQ(store->pendingChange(second)->baseCursor, std::nullopt);
  EXPECT_EQ(store->pendingChange(second)->path, "newer/p");
  store->removePendingChange(first);
  EXPECT_EQ(store->pendingChange(first), std::nullopt);
  EXPECT_EQ(store->pendingChanges(kBrain).size(), 1u);
}

TEST_F(MetadataStoreTest, ChangesCollapseToTheLatestStatePerItem) {
  EXPECT_EQ(store->changes(0), ChangeSet{});
  store->upsertBrain({kBrain, "s", "S", std::nullopt});
  store->upsertNode(file("kept", "kept.txt"));
  store->upsertNode(file("gone", "gone.txt"));
  const auto node = [](const char* id) { return SyncItemIdentifier::node(kBrain, id); };

  store->recordChange(node("dropped"), false);
  store->recordChange(node("dropped"), false);
  store->recordChange(node("kept"), false);
  store->recordChange(node("dropped"), true);
  store->recordChange(node("gone"), false);
  store->recordChange(SyncItemIdentifier::brain(kBrain), false);
  store->recordChange(node("kept"), false);
  const auto last = store->recordChange(node("gone"), false);
  raw("INSERT INTO changes_log (brain_id, item_identifier, deleted) VALUES ('', 'bogus', 0)");
  ASSERT_TRUE(store->deleteNode(kBrain, "gone"));

  ChangeSet set = store->changes(0);
  EXPECT_EQ(set.deleted, (std::vector{node("dropped"), node("gone")}));
  ASSERT_EQ(set.changed.size(), 2u);
  EXPECT_EQ(set.changed[0], SyncItem::brain(*store->brain(kBrain)));
  EXPECT_EQ(set.changed[1], SyncItem::node(*store->nodeWithId(kBrain, "kept")));
  EXPECT_EQ(set.anchor, last + 1);

  ChangeSet none = store->changes(last + 1);
  EXPECT_TRUE(none.changed.empty() && none.deleted.empty());
  EXPECT_EQ(none.anchor, last + 1);
  EXPECT_EQ(store->changes(last + 50).anchor, last + 1);

  // The root item is logged without a brain.
  store->recordChange(SyncItemIdentifier::root(), false);
  SQLiteDatabase db(path);
  EXPECT_EQ(
      db.query("SELECT brain_id FROM changes_log WHERE item_identifier = 'root'").at(0).string(0),
      "");
}

TEST_F(MetadataStoreTest, OwnWritesAreAMultiset) {
  store->recordOwnWrite(kBrain, "a.txt");
  store->recordOwnWrite(kBrain, "a.txt");
  store->recordOwnWrite(kOther, "a.txt");
  EXPECT_EQ(store->ownWriteCount(kBrain, "a.txt"), 2);
  EXPECT_TRUE(store->consumeOwnWrite(kBrain, "a.txt"));
  EXPECT_EQ(store->ownWriteCount(kBrain, "a.txt"), 1);
  EXPECT_TRUE(store->consumeOwnWrite(kBrain, "a.txt"));
  EXPECT_FALSE(store->consumeOwnWrite(kBrain, "a.txt"));
  EXPECT_FALSE(store->consumeOwnWrite(kBrain, "b.txt"));
  EXPECT_EQ(store->ownWriteCount(kOther, "a.txt"), 1);
  store->clearOwnWrites(kOther);
  EXPECT_EQ(store->ownWriteCount(kOther, "a.txt"), 0);
}

TEST_F(MetadataStoreTest, DamagedRowsAreReportedNotSkipped) {
  raw("INSERT INTO brains VALUES ('not-a-uuid', 's', 'n', NULL)");
  EXPECT_EQ(thrownBy<MetadataStoreError>([&] { store->brains(); }),
            MetadataStoreError::corruptRow("invalid UUID \"not-a-uuid\""));
  raw("DELETE FROM brains");

  const std::string brain = kBrain.toString();
  for (const char* values : {"'n1', 'p1', 't', 0, 'text', 'yesterday'",
                             "'n2', 'p2', 't', 0, 'folder', '2025-03-01T09:30:12.345Z'"}) {
    raw("INSERT INTO nodes (brain_id, node_id, path, title, is_directory, kind, updated_at) "
        "VALUES ('" +
        brain + "', " + values + ")");
  }
  EXPECT_EQ(thrownBy<MetadataStoreError>([&] { store->nodeWithId(kBrain, "n1"); }),
            MetadataStoreError::corruptRow("invalid date \"yesterday\""));
  EXPECT_EQ(thrownBy<MetadataStoreError>([&] { store->nodeAtPath(kBrain, "p2"); }),
            MetadataStoreError::corruptRow("invalid node kind \"folder\""));
  EXPECT_THROW(store->nodes(kBrain), MetadataStoreError);

  raw("INSERT INTO pending_changes (brain_id, change_kind, path, created_at) VALUES ('" + brain +
      "', 'rename', 'p', '2025-03-01T09:30:12.345Z')");
  EXPECT_EQ(thrownBy<MetadataStoreError>([&] { store->pendingChanges(); }),
            MetadataStoreError::corruptRow("invalid change kind \"rename\""));
}

TEST_F(MetadataStoreTest, WriteTransactionsAreAllOrNothing) {
  EXPECT_THROW(store->writeTransaction([&] {
    store->upsertNode(file("n", "n.txt"));
    store->recordChange(SyncItemIdentifier::node(kBrain, "n"), false);
    throw std::runtime_error("abort");
  }),
               std::runtime_error);
  EXPECT_EQ(store->nodeWithId(kBrain, "n"), std::nullopt);
  EXPECT_EQ(store->currentAnchor(), 0);

  auto anchor = store->writeTransaction([&] {
    store->upsertNode(file("n", "n.txt"));
    EXPECT_TRUE(store->touchContent(kBrain, "n"));  // joins, does not commit early
    return store->withLock([&] { return store->currentAnchor(); });
  });
  EXPECT_EQ(anchor, 1);
  EXPECT_EQ(store->nodeWithId(kBrain, "n")->contentVersion, 1);
}

TEST_F(MetadataStoreTest, SerialisesConcurrentCallers) {
  constexpr int kPerThread = 100;
  auto writer = [&](const Uuid& brain) {
    for (int i = 0; i < kPerThread; ++i) {
      std::string id = "n" + std::to_string(i);
      store->writeTransaction([&] {
        store->upsertNode(file(id, id, brain));
        store->recordChange(SyncItemIdentifier::node(brain, id), false);
      });
      store->enqueue(change(PendingChangeKind::update, id, brain));
      EXPECT_TRUE(store->nodeWithId(brain, id));
    }
  };
  std::thread first(writer, kBrain);
  std::thread second(writer, kOther);
  first.join();
  second.join();
  EXPECT_EQ(store->nodes(kBrain).size(), std::size_t{kPerThread});
  EXPECT_EQ(store->nodes(kOther).size(), std::size_t{kPerThread});
  EXPECT_EQ(store->changes(0).changed.size(), std::size_t{2 * kPerThread});
  EXPECT_EQ(store->pendingChanges().size(), std::size_t{2 * kPerThread});
}

}  // namespace
}  // namespace synckit
