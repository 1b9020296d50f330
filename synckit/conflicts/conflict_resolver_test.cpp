#include "synckit/conflicts/conflict_resolver.h"

#include <gtest/gtest.h>

#include <map>

#include "synckit/conflicts/conflict_event_log.h"
#include "synckit/engine/feed_test_store.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/store/sqlite_error.h"

namespace synckit {
namespace {

using Strings = std::vector<std::string>;

// Late in the evening UTC: the copy names carry the UTC date.
const Timestamp kNow = *Timestamp::parse("2025-03-01T23:30:00.000Z");
// The date FeedTestStore::put stamps its nodes with.
const Timestamp kStored = *Timestamp::parse("2025-01-01T00:00:00.000Z");

std::string copyName(std::string_view stem, std::string_view label = "Laptop",
                     std::string_view suffix = "") {
  return std::string(stem) + " (conflicted copy " + std::string(label) + " 2025-03-01" +
         std::string(suffix) + ")";
}

class ConflictResolverTest : public ::testing::Test {
 protected:
  std::unique_ptr<ConflictResolver> resolver(std::string deviceName = "Laptop") {
    return std::make_unique<ConflictResolver>(
        *db.store, std::move(deviceName), spool, [] { return kNow; },
        [this](const PendingChange& change, const std::optional<NodeRecord>&) {
          auto found = local.find(change.path);
          return found == local.end() ? std::nullopt : std::optional<Bytes>(found->second);
        });
  }

  std::int64_t queue(PendingChangeKind kind, std::string path,
                     std::optional<std::string> fromPath = std::nullopt) {
    PendingChange change;
    change.brainId = db.brainId;
    change.changeKind = kind;
    change.path = std::move(path);
    change.fromPath = std::move(fromPath);
    change.baseCursor = "c0";
    return db.store->enqueue(change);
  }

  Strings messages() {
    Strings result;
    for (const ConflictEvent& event : ConflictEventLog::drain(*db.store))
      result.push_back(event.message);
    return result;
  }

  Strings pendingPaths() {
    Strings result;
    for (const PendingChange& change : db.store->pendingChanges(db.brainId))
      result.push_back(change.path);
    return result;
  }

  testing::FeedTestStore db;
  ConflictSpool spool{db.directory / "spool"};
  std::map<std::string, Bytes> local;
};

TEST_F(ConflictResolverTest, CopiesAreLabelledNumberedQueuedAndAnnounced) {
  db.put("n1", "notes/a.md");
  auto edit = queue(PendingChangeKind::update, "notes/a.md");
  auto r = resolver(" Work/Lap:top \n");

  auto first = r->bounceUpsert(db.brainId, "notes/a.md", edit, toBytes("mine"));
  auto second = r->divertStaleEdit(db.brainId, "notes/a.md", std::nullopt, toBytes("again"));
  const std::string firstPath = "notes/" + copyName("a", "Work-Lap-top") + ".md";
  const std::string secondPath = "notes/" + copyName("a", "Work-Lap-top", " 2") + ".md";
  EXPECT_EQ(first.copy.copyPath, firstPath);
  EXPECT_EQ(second.copy.copyPath, secondPath);
  EXPECT_EQ(first.record->nodeId, "n1");
  EXPECT_EQ(r->copies(), (std::vector<ConflictCopy>{first.copy, second.copy}));

  // The edit left the queue; each copy is a queued create with its bytes spooled.
  EXPECT_EQ(pendingPaths(), (Strings{firstPath, secondPath}));
  ASSERT_TRUE(first.copy.journalId);
  EXPECT_EQ(spool.read(ConflictSpool::copyKey(*first.copy.journalId)), toBytes("mine"));
  EXPECT_EQ(spool.read(ConflictSpool::copyKey(*second.copy.journalId)), toBytes("again"));
  NodeRecord node = db.node(firstPath);
  EXPECT_EQ(node.nodeId, first.copy.nodeId);
  EXPECT_TRUE(node.nodeId.starts_with("local:"));
  EXPECT_EQ(node.title, copyName("a", "Work-Lap-top"));
  EXPECT_FALSE(node.localOnly);
  EXPECT_EQ(node.updatedAt, kNow);

  EXPECT_EQ(messages(),
            (Strings{"You don't have write access to “a.md”. Your edit was kept as “" +
                         copyName("a", "Work-Lap-top") + ".md”.",
                     "“a.md” changed elsewhere after you started editing it. Your version was "
                     "saved as “" +
                         copyName("a", "Work-Lap-top", " 2") + ".md”."}));

  // A name with nothing left after trimming; a refused create removes the
  // local-only node and makes the copy's missing folders.
  db.put("local:X", "new/b.txt", false, true);
  auto create =
      resolver(" \t\n")->bounceCreate(db.brainId, "new/b.txt", std::nullopt, toBytes("b"));
  EXPECT_EQ(create.copy.copyPath, "new/" + copyName("b", "Computer") + ".txt");
  EXPECT_FALSE(create.record);
  EXPECT_FALSE(db.store->nodeAtPath(db.brainId, "new/b.txt"));
  EXPECT_TRUE(db.node("new").isDirectory);
}

TEST_F(ConflictResolverTest, ATooLargeCopyStaysOnThisComputer) {
  Bytes huge(static_cast<std::size_t>(UploadPlanner::maxUploadBytes) + 1, 'x');
  auto r = resolver();
  auto result = r->bounceUpsert(db.brainId, "big.bin", std::nullopt, huge);
  EXPECT_FALSE(result.copy.journalId);
  EXPECT_TRUE(pendingPaths().empty());
  NodeRecord node = db.node(result.copy.copyPath);
  EXPECT_TRUE(node.localOnly);
  EXPECT_EQ(node.uploadError, "File is too large to sync (limit 100 MB)");
  EXPECT_EQ(spool.read(ConflictSpool::nodeKey(node.nodeId)), huge);
  EXPECT_EQ(messages().size(), 1u);
}

TEST_F(ConflictResolverTest, HandleLetsTheRemoteSideWinAndKeepsTheLocalVersionAsACopy) {
  auto r = resolver();
  auto handler = r->conflictHandler();
  FeedEntry entry;
  db.put("n1", "a.md");
  db.put("d1", "dir", true);
  local["a.md"] = toBytes("local a");
  const auto titleOnly = Op(Op::Update{"a.md", "New title", std::nullopt, false, std::nullopt});
  const auto body = Op(Op::Update{"a.md", std::nullopt, std::nullopt, true, std::nullopt});

  auto edit = queue(PendingChangeKind::update, "a.md");
  PendingChange change = *db.store->pendingChange(edit);
  EXPECT_EQ(handler(entry, titleOnly, change), ConflictResolution::remoteWins);
  EXPECT_EQ(pendingPaths(), Strings{"a.md"});
  EXPECT_EQ(handler(entry, body, change), ConflictResolution::remoteWins);
  const std::string copyPath = copyName("a") + ".md";
  EXPECT_EQ(pendingPaths(), Strings{copyPath});
  EXPECT_EQ(messages(), Strings{"“a.md” changed on another device while you were editing it. "
                                "Your version was saved as “" +
                                copyPath + "”."});
  // Handled once, the change is gone: a second op of the page makes no second copy.
  EXPECT_EQ(handler(entry, body, change), ConflictResolution::remoteWins);
  EXPECT_EQ(r->copies().size(), 1u);
  db.store->removePendingChange(*r->copies()[0].journalId);

  // A waiting delete and an edit of what is now a folder just go.
  const auto deleteOp = Op(Op::Delete{"dir"});
  for (auto kind : {PendingChangeKind::delete_, PendingChangeKind::update}) {
    auto id = queue(kind, "dir");
    EXPECT_EQ(handler(entry, deleteOp, *db.store->pendingChange(id)),
              ConflictResolution::remoteWins);
    EXPECT_TRUE(pendingPaths().empty());
  }

  // Without local content nothing is decided and the change stays.
  auto orphan = queue(PendingChangeKind::create, "missing.md");
  EXPECT_THROW(handler(entry, body, *db.store->pendingChange(orphan)), FileNotFoundError);
  EXPECT_EQ(pendingPaths(), Strings{"missing.md"});
}

TEST_F(ConflictResolverTest, RefusedMovesDeletesAndCopyUploadsAreUndoneAndAnnounced) {
  auto r = resolver();
  // The move had already happened locally: it is undone and shown again.
  NodeRecord moved = db.put("n1", "b/x.md");
  moved.uploadError = "boom";
  db.store->upsertNode(moved);
  auto move = queue(PendingChangeKind::move, "b/x.md", "a/x.md");
  const auto anchor = db.store->currentAnchor();
  r->bounceMove(db.brainId, "a/x.md", "b/x.md", move);
  EXPECT_EQ(db.node("a/x.md").nodeId, "n1");
  EXPECT_FALSE(db.node("a/x.md").uploadError);
  EXPECT_FALSE(db.store->nodeAtPath(db.brainId, "b/x.md"));
  EXPECT_NE(db.store->currentAnchor(), anchor);

  db.put("d", "d", true);
  db.put("n2", "d/y.md");
  auto del = queue(PendingChangeKind::delete_, "d");
  const auto beforeDelete = db.store->currentAnchor();
  r->bounceDelete(db.brainId, "d", del);
  EXPECT_EQ(db.log(beforeDelete), (Strings{"+d", "+n2"}));
  EXPECT_TRUE(pendingPaths().empty());

  // A queued copy whose folder turned out read-only.
  auto copy = r->bounceUpsert(db.brainId, "a/x.md", std::nullopt, toBytes("mine")).copy;
  r->copyUploadBounced(db.brainId, copy.nodeId, copy.copyPath, *copy.journalId);
  NodeRecord node = db.node(copy.copyPath);
  EXPECT_TRUE(node.localOnly);
  EXPECT_EQ(node.uploadError, "No write access");
  EXPECT_EQ(spool.read(ConflictSpool::nodeKey(copy.nodeId)), toBytes("mine"));
  EXPECT_FALSE(spool.exists(ConflictSpool::copyKey(*copy.journalId)));
  EXPECT_TRUE(pendingPaths().empty());

  Strings all = messages();
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[0], "You don't have write access to “x.md”. It was not moved.");
  EXPECT_EQ(all[1], "You don't have write access to “d”. It was not deleted.");
  EXPECT_EQ(all[3], "You don't have write access to this folder, so “" + copyName("x") +
                        ".md” stays on this computer only.");

  // Nothing spooled: nothing changes.
  auto other = r->bounceUpsert(db.brainId, "z.md", std::nullopt, toBytes("z")).copy;
  spool.remove(ConflictSpool::copyKey(*other.journalId));
  EXPECT_THROW(r->copyUploadBounced(db.brainId, other.nodeId, other.copyPath, *other.journalId),
               FileNotFoundError);
  EXPECT_FALSE(db.node(other.copyPath).localOnly);
}

SnapshotNode snapshotOf(const NodeRecord& node) {
  return SnapshotNode{node.nodeId, node.path,     node.title,    node.isDirectory,
                      node.kind,   node.blobHash, node.blobSize, node.updatedAt};
}

class ApplyResetTest : public ConflictResolverTest {
 protected:
  void SetUp() override {
    snapshot.push_back(snapshotOf(db.put("n1", "keep.md")));
    keepEdit = queue(PendingChangeKind::update, "keep.md");
    spool.writeEdit(toBytes("keep v2"), keepEdit);

    SnapshotNode changed = snapshotOf(db.put("n2", "changed.md"));
    changed.updatedAt = Timestamp::fromMilliseconds(kStored.millisecondsSinceEpoch() + 1);
    snapshot.push_back(changed);
    changedEdit = queue(PendingChangeKind::update, "changed.md");
    local["changed.md"] = toBytes("changed v2");

    newCreate = queue(PendingChangeKind::create, "new.md");
    local["new.md"] = toBytes("new");

    db.put("n3", "gone.md");
    goneDelete = queue(PendingChangeKind::delete_, "gone.md");

    snapshot.push_back(snapshotOf(db.put("n4", "m.md")));
    SnapshotNode taken;
    taken.nodeId = "n5";
    taken.path = "taken/t.md";
    taken.title = "t";
    snapshot.push_back(taken);
    takenMove = queue(PendingChangeKind::move, "taken", "m.md");

    NodeRecord clash = db.put("local:C", "clash.md", false, true);
    spool.write(toBytes("clash"), ConflictSpool::nodeKey(clash.nodeId));
    SnapshotNode server;
    server.nodeId = "n6";
    server.path = "clash.md";
    server.title = "clash";
    snapshot.push_back(server);
  }

  std::vector<SnapshotNode> snapshot;
  std::int64_t keepEdit = 0, changedEdit = 0, newCreate = 0, goneDelete = 0, takenMove = 0;
};

TEST_F(ApplyResetTest, RebasesDropsAndCopiesWithoutLosingALocalVersion) {
  auto r = resolver();
  auto result = r->applyReset(snapshot, db.brainId, "c9");

  Strings requeued, dropped;
  for (const auto& change : result.requeued) {
    requeued.push_back(change.path);
    EXPECT_EQ(change.baseCursor, "c9");
    EXPECT_EQ(db.store->pendingChange(*change.id), change);
  }
  for (const auto& change : result.dropped) dropped.push_back(change.path);
  EXPECT_EQ(requeued, (Strings{"keep.md", "new.md"}));
  EXPECT_EQ(dropped, (Strings{"gone.md", "taken"}));
  EXPECT_TRUE(result.unresolved.empty());
  EXPECT_EQ(db.store->cursor(db.brainId), "c9");

  // Every local version exists exactly once.
  ASSERT_EQ(result.copies.size(), 1u);
  const ConflictCopy& copy = result.copies[0];
  EXPECT_EQ(copy.copyPath, copyName("changed") + ".md");
  EXPECT_EQ(r->copies(), result.copies);
  EXPECT_EQ(pendingPaths(), (Strings{"keep.md", "new.md", copy.copyPath}));
  EXPECT_EQ(spool.pendingBytes(keepEdit), toBytes("keep v2"));
  EXPECT_EQ(spool.pendingBytes(*copy.journalId), toBytes("changed v2"));
  EXPECT_FALSE(spool.exists(ConflictSpool::editKey(changedEdit)));
  EXPECT_EQ(db.node("changed.md").nodeId, "n2");

  // The never-uploaded item stepped aside for the server's.
  EXPECT_EQ(db.node("clash.md").nodeId, "n6");
  NodeRecord aside = db.node(copyName("clash") + ".md");
  EXPECT_EQ(aside.nodeId, "local:C");
  EXPECT_TRUE(aside.localOnly);
  EXPECT_EQ(spool.read(ConflictSpool::nodeKey("local:C")), toBytes("clash"));

  EXPECT_EQ(messages(), Strings{"“changed.md” changed on the server while this computer was "
                                "offline or out of date. Your version was kept as “" +
                                copy.copyPath + "”."});
}

TEST_F(ApplyResetTest, AFailurePartWayLeavesEverythingAsBefore) {
  const auto before = db.state();
  auto r = resolver();
  db.observer.execute(
      "CREATE TRIGGER refuse BEFORE INSERT ON nodes WHEN NEW.path = 'taken/t.md' "
      "BEGIN SELECT RAISE(ABORT, 'injected failure'); END");
  EXPECT_THROW(r->applyReset(snapshot, db.brainId, "c9"), SQLiteError);
  EXPECT_EQ(db.state(), before);
  EXPECT_TRUE(r->copies().empty());
  EXPECT_TRUE(messages().empty());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(spool.directory),
                          std::filesystem::directory_iterator()),
            2);

  // Missing local bytes stop the reset before anything changes.
  db.observer.execute("DROP TRIGGER refuse");
  local.erase("new.md");
  EXPECT_THROW(r->applyReset(snapshot, db.brainId, "c9"), FileNotFoundError);
  EXPECT_EQ(db.state(), before);
}

}  // namespace
}  // namespace synckit
