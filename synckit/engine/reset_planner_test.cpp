#include "synckit/engine/reset_planner.h"

#include <gtest/gtest.h>

#include "synckit/engine/feed_test_store.h"
#include "synckit/store/sqlite_error.h"

namespace synckit {
namespace {

using Strings = std::vector<std::string>;

// Seconds after the date FeedTestStore::put stamps its nodes with.
Timestamp at(int seconds) {
  return Timestamp::fromMilliseconds(1'735'689'600'000 + seconds * 1000);
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

class ResetPlannerTest : public ::testing::Test {
 protected:
  ResetPlan reset(const std::optional<std::string>& cursor,
                  const std::vector<SnapshotNode>& snapshot) {
    return t.store->writeTransaction(
        [&] { return ResetPlanner::plan(*t.store, t.brainId, cursor, snapshot); });
  }
  SyncItemIdentifier item(std::string nodeId) {
    return SyncItemIdentifier::node(t.brainId, std::move(nodeId));
  }
  DownloadRequest download(std::string id, std::string path, NodeKind kind, std::int64_t version,
                           std::string cursor) {
    return {t.brainId, std::move(id), std::move(path), kind, version, std::move(cursor)};
  }

  testing::FeedTestStore t;
};

TEST_F(ResetPlannerTest, SwapsPathsThroughTemporaryNamesAndLogsBothNodes) {
  t.put("n1", "a.md");
  t.put("n2", "b.md");
  const auto anchor = t.store->currentAnchor();
  SnapshotNode first = file("n1", "b.md"), second = file("n2", "a.md");
  first.title = "a.md";  // the title stays; only the path moves
  second.title = "b.md";

  EXPECT_TRUE(reset("c1", {first, second}).isEmpty());
  EXPECT_EQ(t.tree(), (Strings{"a.md=n2", "b.md=n1"}));
  EXPECT_EQ(t.node("b.md").contentVersion, 1);
  EXPECT_EQ(t.log(anchor), (Strings{"+n1", "+n2"}));
  EXPECT_EQ(t.store->cursor(t.brainId), "c1");
}

TEST_F(ResetPlannerTest, WithoutCursorOnlyLocalOnlyNodesStayAndOwnWritesGo) {
  t.put("dir:d", "d", true);
  t.put("n1", "a.md");
  t.put("local:X", "d/x.md", false, true);
  t.store->recordOwnWrite(t.brainId, "a.md");

  ResetPlan plan = reset(std::nullopt, {file("n7", "new.md")});

  EXPECT_TRUE(plan.downloads.empty());
  EXPECT_EQ(plan.deletedIdentifiers, (std::vector<SyncItemIdentifier>{item("n1"), item("dir:d")}));
  EXPECT_EQ(t.tree(), (Strings{"d/x.md=local:X"}));
  EXPECT_EQ(t.log(), (Strings{"-n1", "-dir:d"}));
  EXPECT_EQ(t.store->cursor(t.brainId), std::nullopt);
  EXPECT_EQ(t.store->ownWriteCount(t.brainId, "a.md"), 0);
}

TEST_F(ResetPlannerTest, StoredNodesOutsideTheSnapshotStayOnlyWhereNothingTakesTheirPath) {
  t.put("local:A", "draft.md", false, true);
  t.put("local:B", "taken.md", false, true);
  // A conflicted copy waiting for its upload stays too; an unqueued one goes.
  t.put("local:C", "copy.md");
  t.put("local:D", "stray.md");
  PendingChange create;
  create.brainId = t.brainId;
  create.nodeId = "local:C";
  create.path = "copy.md";
  t.store->enqueue(create);
  // Folders the feed made, before the server listed them with ids of its own
  // ("notes") or only implied them ("keep").
  t.put("dir:notes", "notes", true);
  t.put("dir:keep", "keep", true);
  t.put("dir:old", "old", true);
  t.put("n1", "notes/a.md");

  ResetPlan plan = reset("c1", {file("n9", "taken.md", "h9"), folder("f1", "notes"),
                                file("n1", "notes/a.md"), file("n2", "keep/b.md")});

  EXPECT_EQ(t.tree(), (Strings{"copy.md=local:C", "draft.md=local:A", "keep=dir:keep",
                               "keep/b.md=n2", "notes=f1", "notes/a.md=n1", "taken.md=n9"}));
  EXPECT_EQ(plan.deletedIdentifiers,
            (std::vector<SyncItemIdentifier>{item("dir:notes"), item("dir:old"), item("local:D"),
                                             item("local:B")}));
  EXPECT_EQ(plan.downloads,
            (std::vector<DownloadRequest>{download("n2", "keep/b.md", NodeKind::text, 1, "c1"),
                                          download("n9", "taken.md", NodeKind::blob, 1, "c1")}));
}

TEST_F(ResetPlannerTest, ImpliedFoldersAreMadeAndIgnoredNamesCountForNothing) {
  t.put("n5", "junk.md");

  ResetPlan plan = reset("c1", {file("n1", "a/b/c.md", std::nullopt, 5), file("n2", "z.md", "h", 9),
                                file("n5", "x/.DS_Store"), file("n6", "a/.gitkeep")});

  EXPECT_EQ(t.tree(), (Strings{"a=dir:a", "a/b=dir:a/b", "a/b/c.md=n1", "z.md=n2"}));
  // Titled by its name, dated by the newest node in the snapshot.
  EXPECT_EQ(t.node("a/b"), (NodeRecord{t.brainId, "dir:a/b", "a/b", "b", true, NodeKind::text,
                                       std::nullopt, std::nullopt, at(9), 0, false, std::nullopt}));
  EXPECT_EQ(plan.deletedIdentifiers, std::vector<SyncItemIdentifier>{item("n5")});
  EXPECT_EQ(plan.downloads,
            (std::vector<DownloadRequest>{download("n1", "a/b/c.md", NodeKind::text, 1, "c1"),
                                          download("n2", "z.md", NodeKind::blob, 1, "c1")}));
}

TEST_F(ResetPlannerTest, ContentChangesFollowHashAndTimestampButNeverFolders) {
  const std::vector<SnapshotNode> first{file("hash", "hash.bin", "h1"), file("time", "time.md"),
                                        file("title", "title.md"),      folder("dir", "dir"),
                                        file("gone", "gone.bin", "h1"), file("same", "same.md")};
  reset("c1", first);
  t.store->recordOwnWrite(t.brainId, "time.md");
  const auto before = t.store->nodes(t.brainId);
  auto anchor = t.store->currentAnchor();

  // The identical snapshot again writes nothing but the cursor.
  EXPECT_TRUE(reset("c2", first).isEmpty());
  EXPECT_EQ(t.store->currentAnchor(), anchor);
  EXPECT_EQ(t.store->nodes(t.brainId), before);
  EXPECT_EQ(t.store->cursor(t.brainId), "c2");

  SnapshotNode retitled = file("title", "title.md");
  retitled.title = "Title";
  ResetPlan plan =
      reset("c3", {file("hash", "hash.bin", "h2"), file("time", "time.md", {}, 1), retitled,
                   folder("dir", "dir", 1), file("gone", "gone.bin"), file("same", "same.md")});

  EXPECT_EQ(plan.downloads,
            (std::vector<DownloadRequest>{download("gone", "gone.bin", NodeKind::text, 2, "c3"),
                                          download("hash", "hash.bin", NodeKind::blob, 2, "c3"),
                                          download("time", "time.md", NodeKind::text, 2, "c3")}));
  EXPECT_TRUE(plan.deletedIdentifiers.empty());
  EXPECT_EQ(t.node("title.md").title, "Title");
  EXPECT_EQ(t.node("title.md").contentVersion, 1);
  EXPECT_EQ(t.node("dir").updatedAt, at(1));
  EXPECT_EQ(t.node("dir").contentVersion, 0);
  EXPECT_EQ(t.log(anchor).size(), 5u);  // all but "same"
  EXPECT_EQ(t.store->ownWriteCount(t.brainId, "time.md"), 0);
}

TEST_F(ResetPlannerTest, AFailurePartWayLeavesTheStoreAsItWasOnceTheCallerRollsBack) {
  t.put("n1", "a.md");
  t.put("n2", "b.md");
  t.put("n3", "c.md");
  t.store->recordOwnWrite(t.brainId, "a.md");
  const auto before = t.state();

  // Deletes, the swap and the first insert succeed; the second node at d.md
  // breaks the unique path index.
  EXPECT_THROW(
      reset("c1", {file("n1", "b.md"), file("n2", "a.md"), file("n4", "d.md"), file("n5", "d.md")}),
      SQLiteError);
  EXPECT_EQ(t.state(), before);
}

}  // namespace
}  // namespace synckit
