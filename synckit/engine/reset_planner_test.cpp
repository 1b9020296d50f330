#include "synckit/engine/reset_planner.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "synckit/store/sqlite_error.h"
#include "synckit/testing/temporary_directory.h"

namespace synckit {
namespace {

const Uuid kBrain = *Uuid::parse("6A1F3C2E-9B4D-4E8A-A1C3-5D7E9F0B2C4D");

Timestamp at(int seconds) {
  return Timestamp::fromMilliseconds(1'740'000'000'000 + seconds * 1000);
}

SnapshotNode file(std::string id, std::string path, std::optional<std::string> hash = std::nullopt,
                  int seconds = 0) {
  SnapshotNode node;
  node.nodeId = std::move(id);
  node.path = std::move(path);
  node.title = node.path.substr(node.path.rfind('/') + 1);
  node.kind = hash ? NodeKind::blob : NodeKind::text;
  if (hash) node.blobSize = 10;
  node.blobHash = std::move(hash);
  node.updatedAt = at(seconds);
  return node;
}

SnapshotNode folder(std::string id, std::string path, int seconds = 0) {
  SnapshotNode node = file(std::move(id), std::move(path), std::nullopt, seconds);
  node.isDirectory = true;
  return node;
}

NodeRecord record(const SnapshotNode& node, bool localOnly = false) {
  NodeRecord r;
  r.brainId = kBrain;
  r.nodeId = node.nodeId;
  r.path = node.path;
  r.title = node.title;
  r.isDirectory = node.isDirectory;
  r.kind = node.kind;
  r.blobHash = node.blobHash;
  r.blobSize = node.blobSize;
  r.updatedAt = node.updatedAt;
  r.contentVersion = node.isDirectory ? 0 : 1;
  r.localOnly = localOnly;
  return r;
}

SyncItemIdentifier item(std::string nodeId) { return SyncItemIdentifier::node(kBrain, nodeId); }

class ResetPlannerTest : public ::testing::Test {
 protected:
  void SetUp() override { store->upsertBrain({kBrain, "notes", "Notes", "c0"}); }

  void seed(const std::vector<NodeRecord>& nodes) {
    store->writeTransaction([&] {
      for (const NodeRecord& node : nodes) store->upsertNode(node);
    });
  }

  ResetPlan reset(const std::optional<std::string>& cursor,
                  const std::vector<SnapshotNode>& snapshot) {
    return store->writeTransaction(
        [&] { return ResetPlanner::plan(*store, kBrain, cursor, snapshot); });
  }

  // path -> node id
  std::map<std::string, std::string> tree() {
    std::map<std::string, std::string> paths;
    for (const NodeRecord& node : store->nodes(kBrain)) paths[node.path] = node.nodeId;
    return paths;
  }

  DownloadRequest download(const std::string& id, const std::string& path, NodeKind kind,
                           std::int64_t version, const std::string& cursor) {
    return {kBrain, id, path, kind, version, cursor};
  }

  testing::TemporaryDirectory directory;
  std::unique_ptr<MetadataStore> store = MetadataStore::open(directory / "sync.sqlite");
};

TEST_F(ResetPlannerTest, SwapsPathsThroughTemporaryNamesAndLogsBothNodes) {
  seed({record(file("n1", "a.md")), record(file("n2", "b.md"))});
  auto anchor = store->currentAnchor();
  SnapshotNode first = file("n1", "b.md");
  SnapshotNode second = file("n2", "a.md");
  first.title = "a.md";  // the title stays; only the path moves
  second.title = "b.md";

  ResetPlan plan = reset("c1", {first, second});

  EXPECT_TRUE(plan.isEmpty());
  EXPECT_EQ(tree(), (std::map<std::string, std::string>{{"a.md", "n2"}, {"b.md", "n1"}}));
  EXPECT_EQ(store->nodeWithId(kBrain, "n1")->contentVersion, 1);
  auto changes = store->changes(anchor);
  EXPECT_EQ(changes.changed.size(), 2u);
  EXPECT_TRUE(changes.deleted.empty());
  EXPECT_EQ(store->cursor(kBrain), "c1");
}

TEST_F(ResetPlannerTest, WithoutCursorOnlyLocalOnlyNodesStayAndOwnWritesGo) {
  seed({record(folder("dir:d", "d")), record(file("n1", "a.md", "h")),
        record(file("local:X", "d/x.md"), true)});
  store->recordOwnWrite(kBrain, "a.md");

  ResetPlan plan = reset(std::nullopt, {file("n7", "new.md")});

  EXPECT_EQ(plan.downloads, std::vector<DownloadRequest>{});
  EXPECT_EQ(plan.deletedIdentifiers, (std::vector<SyncItemIdentifier>{item("n1"), item("dir:d")}));
  EXPECT_EQ(tree(), (std::map<std::string, std::string>{{"d/x.md", "local:X"}}));
  EXPECT_EQ(store->changes(0).deleted.size(), 2u);
  EXPECT_EQ(store->cursor(kBrain), std::nullopt);
  EXPECT_EQ(store->ownWriteCount(kBrain, "a.md"), 0);
}

TEST_F(ResetPlannerTest, StoredNodesOutsideTheSnapshotStayOnlyWhereNothingTakesTheirPath) {
  seed({record(file("local:A", "draft.md"), true), record(file("local:B", "taken.md"), true),
        // Folders the feed made, before the server listed them with ids of
        // its own ("notes") or only implied them ("keep").
        record(folder("dir:notes", "notes")), record(folder("dir:keep", "keep")),
        record(folder("dir:old", "old")), record(file("n1", "notes/a.md"))});

  ResetPlan plan = reset("c1", {file("n9", "taken.md", "h9"), folder("f1", "notes"),
                                file("n1", "notes/a.md"), file("n2", "keep/b.md")});

  EXPECT_EQ(tree(), (std::map<std::string, std::string>{{"draft.md", "local:A"},
                                                        {"keep", "dir:keep"},
                                                        {"keep/b.md", "n2"},
                                                        {"notes", "f1"},
                                                        {"notes/a.md", "n1"},
                                                        {"taken.md", "n9"}}));
  EXPECT_EQ(plan.deletedIdentifiers,
            (std::vector<SyncItemIdentifier>{item("dir:notes"), item("dir:old"), item("local:B")}));
  EXPECT_EQ(plan.downloads,
            (std::vector<DownloadRequest>{download("n2", "keep/b.md", NodeKind::text, 1, "c1"),
                                          download("n9", "taken.md", NodeKind::blob, 1, "c1")}));
}

TEST_F(ResetPlannerTest, ImpliedFoldersAreMadeAndIgnoredNamesCountForNothing) {
  seed({record(file("n5", "junk.md"))});

  ResetPlan plan = reset("c1", {file("n1", "a/b/c.md", std::nullopt, 5), file("n2", "z.md", "h", 9),
                                file("n5", "x/.DS_Store"), file("n6", "a/.gitkeep")});

  EXPECT_EQ(tree(), (std::map<std::string, std::string>{
                        {"a", "dir:a"}, {"a/b", "dir:a/b"}, {"a/b/c.md", "n1"}, {"z.md", "n2"}}));
  NodeRecord implied = *store->nodeAtPath(kBrain, "a/b");
  EXPECT_TRUE(implied.isDirectory);
  EXPECT_EQ(implied.title, "b");
  EXPECT_EQ(implied.kind, NodeKind::text);
  EXPECT_EQ(implied.contentVersion, 0);
  EXPECT_EQ(implied.updatedAt, at(9));  // the newest in the snapshot
  EXPECT_EQ(plan.deletedIdentifiers, std::vector<SyncItemIdentifier>{item("n5")});
  EXPECT_EQ(plan.downloads,
            (std::vector<DownloadRequest>{download("n1", "a/b/c.md", NodeKind::text, 1, "c1"),
                                          download("n2", "z.md", NodeKind::blob, 1, "c1")}));
}

TEST_F(ResetPlannerTest, AnIdenticalSnapshotWritesNothing) {
  std::vector<SnapshotNode> snapshot{folder("f1", "docs", 3), file("n1", "docs/a.md", "h1", 4),
                                     file("n2", "deep/er/b.md", std::nullopt, 5)};
  reset("c1", snapshot);
  auto before = store->nodes(kBrain);
  auto anchor = store->currentAnchor();

  ResetPlan plan = reset("c2", snapshot);

  EXPECT_TRUE(plan.isEmpty());
  EXPECT_EQ(store->currentAnchor(), anchor);
  EXPECT_EQ(store->nodes(kBrain), before);
  EXPECT_EQ(store->cursor(kBrain), "c2");
}

TEST_F(ResetPlannerTest, ContentChangesFollowHashAndTimestampButNeverFolders) {
  reset("c1", {file("hash", "hash.bin", "h1"), file("time", "time.md"), file("title", "title.md"),
               folder("dir", "dir"), file("gone", "gone.bin", "h1"), file("same", "same.md")});
  store->recordOwnWrite(kBrain, "time.md");
  auto anchor = store->currentAnchor();

  SnapshotNode retitled = file("title", "title.md");
  retitled.title = "Title";
  ResetPlan plan =
      reset("c2", {file("hash", "hash.bin", "h2"), file("time", "time.md", {}, 1), retitled,
                   folder("dir", "dir", 1), file("gone", "gone.bin"), file("same", "same.md")});

  EXPECT_EQ(plan.downloads,
            (std::vector<DownloadRequest>{download("gone", "gone.bin", NodeKind::text, 2, "c2"),
                                          download("hash", "hash.bin", NodeKind::blob, 2, "c2"),
                                          download("time", "time.md", NodeKind::text, 2, "c2")}));
  EXPECT_TRUE(plan.deletedIdentifiers.empty());
  NodeRecord title = *store->nodeWithId(kBrain, "title");
  EXPECT_EQ(title.title, "Title");
  EXPECT_EQ(title.contentVersion, 1);
  NodeRecord dir = *store->nodeWithId(kBrain, "dir");
  EXPECT_EQ(dir.updatedAt, at(1));
  EXPECT_EQ(dir.contentVersion, 0);
  EXPECT_EQ(store->changes(anchor).changed.size(), 5u);  // all but "same"
  EXPECT_EQ(store->ownWriteCount(kBrain, "time.md"), 0);
}

TEST_F(ResetPlannerTest, AFailurePartWayLeavesTheStoreAsItWasOnceTheCallerRollsBack) {
  seed({record(file("n1", "a.md")), record(file("n2", "b.md")), record(file("n3", "c.md"))});
  store->recordOwnWrite(kBrain, "a.md");
  auto before = store->nodes(kBrain);
  auto anchor = store->currentAnchor();

  // Deletes, the swap and the first insert succeed; the second node at d.md
  // breaks the unique path index.
  EXPECT_THROW(
      reset("c1", {file("n1", "b.md"), file("n2", "a.md"), file("n4", "d.md"), file("n5", "d.md")}),
      SQLiteError);

  EXPECT_EQ(store->nodes(kBrain), before);
  EXPECT_EQ(store->currentAnchor(), anchor);
  EXPECT_EQ(store->ownWriteCount(kBrain, "a.md"), 1);
  EXPECT_EQ(store->cursor(kBrain), "c0");
}

}  // namespace
}  // namespace synckit
