#include "synckit/engine/batch_applier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "synckit/engine/feed_test_store.h"

namespace synckit {
namespace {

using ::testing::ElementsAre;
using Strings = std::vector<std::string>;

class BatchApplierTest : public ::testing::Test {
 protected:
  NodeRecord node(std::string_view path) { return *t.store->nodeAtPath(t.brainId, path); }
  std::int64_t anchor() { return t.store->currentAnchor(); }

  testing::FeedTestStore t;
  BatchApplier applier{t.brainId, *t.store};
};

TEST_F(BatchApplierTest, CreatesFilesWithLocalIdsAndTheirMissingFolders) {
  const Timestamp at = *Timestamp::parse("2026-02-03T04:05:06.789Z");
  applier.setEntryDate(at);
  applier.applyCreate("x/y/n.md", "Note", false, NodeKind::blob);
  applier.applyCreate("x/z", "Zed", true, NodeKind::blob);

  EXPECT_EQ(t.paths(), (Strings{"x", "x/y", "x/y/n.md", "x/z"}));
  const NodeRecord file = node("x/y/n.md");
  ASSERT_TRUE(file.nodeId.starts_with("local:"));
  const auto uuid = Uuid::parse(file.nodeId.substr(6));
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->toString(), file.nodeId.substr(6));  // upper case
  EXPECT_EQ(file.title, "Note");
  EXPECT_EQ(file.kind, NodeKind::blob);
  EXPECT_EQ(file.contentVersion, 1);
  EXPECT_EQ(file.updatedAt, at);

  const NodeRecord folder = node("x/z");
  EXPECT_EQ(folder.nodeId, "dir:x/z");
  EXPECT_EQ(folder.title, "Zed");
  EXPECT_EQ(folder.kind, NodeKind::text);
  EXPECT_EQ(folder.contentVersion, 0);
  EXPECT_EQ(node("x/y").title, "y");

  EXPECT_EQ(t.log(), (Strings{"+dir:x", "+dir:x/y", "+" + file.nodeId, "+dir:x/z"}));
  EXPECT_TRUE(applier.changed());
  EXPECT_EQ(applier.downloadRequests("c9"),
            (std::vector<DownloadRequest>{
                {t.brainId, file.nodeId, "x/y/n.md", NodeKind::blob, 1, std::string("c9")}}));

  // A second file gets its own id; a file in the way of a folder goes first.
  applier.applyCreate("x/y/n.md/inner", "inner", false, NodeKind::text);
  EXPECT_TRUE(node("x/y/n.md").isDirectory);
  EXPECT_NE(node("x/y/n.md/inner").nodeId, file.nodeId);
  EXPECT_EQ(applier.downloadRequests(std::nullopt).size(), 1u);  // n.md left the queue
}

TEST_F(BatchApplierTest, MovesExactlyTheSubtreeAndRekeysEngineFolders) {
  t.put("dir:a", "a", true);
  t.put("n-f", "a/f");
  t.put("dir:a/b", "a/b", true);
  t.put("n-g", "a/b/g");
  t.put("srv-c", "a/c", true);  // the server's own folder id
  t.put("n-ab", "ab");
  t.put("n-a0", "a0");
  NodeRecord titled = node("a/b");
  titled.title = "Bee";
  t.store->upsertNode(titled);
  const std::int64_t before = anchor();

  applier.applyMove("a", "x/y/a");
  EXPECT_EQ(t.paths(), (Strings{"a0", "ab", "x", "x/y", "x/y/a", "x/y/a/b", "x/y/a/b/g", "x/y/a/c",
                                "x/y/a/f"}));
  EXPECT_EQ(node("x/y/a").nodeId, "dir:x/y/a");
  EXPECT_EQ(node("x/y/a").title, "a");
  EXPECT_EQ(node("x/y/a/b").nodeId, "dir:x/y/a/b");
  EXPECT_EQ(node("x/y/a/b").title, "Bee");  // not its name, so kept
  EXPECT_EQ(node("x/y/a/c").nodeId, "srv-c");
  EXPECT_EQ(node("x/y/a/f").nodeId, "n-f");
  EXPECT_EQ(node("x/y/a/f").title, "f");
  EXPECT_EQ(t.log(before), (Strings{"+dir:x", "+dir:x/y", "-dir:a", "+dir:x/y/a", "-dir:a/b",
                                    "+dir:x/y/a/b", "+n-g", "+srv-c", "+n-f"}));

  // Onto itself, into its own subtree, or of nothing: no row, no log.
  const std::int64_t after = anchor();
  applier.applyMove("x/y/a", "x/y/a");
  applier.applyMove("x/y/a", "x/y/a/b/inside");
  applier.applyMove("x/y", "x/y/a/b");
  applier.applyMove("missing", "elsewhere");
  applier.applyMove("x/y/a/b", "x/y/a0");  // a sibling whose name extends it is not inside
  EXPECT_EQ(t.log(after), (Strings{"-dir:x/y/a/b", "+dir:x/y/a0", "+n-g"}));
  EXPECT_EQ(node("x/y/a0/g").nodeId, "n-g");
}

TEST_F(BatchApplierTest, MoveOntoAnOccupiedPathReplacesWhatWasThere) {
  t.put("n-src", "src.md");
  t.put("srv-dst", "dst", true);
  t.put("n-old", "dst/old.md");
  t.put("n-keep", "dst0");
  applier.queueDownload("n-old");
  const std::int64_t before = anchor();

  applier.applyMove("src.md", "dst");
  EXPECT_EQ(t.paths(), (Strings{"dst", "dst0"}));
  EXPECT_EQ(node("dst").nodeId, "n-src");
  EXPECT_EQ(t.log(before), (Strings{"-srv-dst", "-n-old", "+n-src"}));
  EXPECT_TRUE(applier.downloadRequests(std::nullopt).empty());

  // Moving a folder's child up over the folder: the moving nodes are spared.
  t.put("dir:p", "p", true);
  t.put("n-q", "p/q", true);
  t.put("n-r", "p/q/r");
  applier.applyMove("p/q", "p");
  EXPECT_EQ(node("p").nodeId, "n-q");
  EXPECT_EQ(node("p/r").nodeId, "n-r");
  EXPECT_FALSE(t.store->nodeWithId(t.brainId, "dir:p"));
}

TEST_F(BatchApplierTest, DeleteSubtreeTakesLocalOnlyChildrenAndSparesWhatItIsTold) {
  t.put("dir:a", "a", true);
  NodeRecord draft = t.put("local:1", "a/draft.md");
  draft.localOnly = true;
  t.store->upsertNode(draft);
  t.put("n-2", "a/sub/deep.md");
  t.put("n-ab", "ab.md");
  applier.queueDownload("n-2");
  applier.queueDownload("n-ab");
  const std::int64_t before = anchor();

  EXPECT_TRUE(applier.deleteSubtree("a", {"n-2"}));
  EXPECT_EQ(t.paths(), (Strings{"a/sub/deep.md", "ab.md"}));
  EXPECT_EQ(t.log(before), (Strings{"-dir:a", "-local:1"}));
  EXPECT_EQ(applier.downloadNodeIds(), (Strings{"n-2", "n-ab"}));

  EXPECT_TRUE(applier.deleteSubtree("a"));
  EXPECT_EQ(applier.downloadNodeIds(), (Strings{"n-ab"}));
  EXPECT_FALSE(applier.deleteSubtree("a"));
  EXPECT_FALSE(applier.deleteSubtree("missing"));
  EXPECT_EQ(t.paths(), (Strings{"ab.md"}));
}

TEST_F(BatchApplierTest, UpdatesRetitleAndBumpContentOnlyWhenAsked) {
  NodeRecord synced = t.put("n-1", "doc.md");
  synced.blobHash = std::string(64, 'a');
  synced.blobSize = 10;
  synced.uploadError = "too big";
  t.store->upsertNode(synced);
  t.put("dir:f", "f", true);
  const Timestamp at = *Timestamp::parse("2026-03-03T03:03:03.333Z");
  applier.setEntryDate(at);
  const std::int64_t before = anchor();

  applier.applyUpdate("doc.md", std::string("doc.md"), false, NodeKind::blob);  // same title
  applier.applyUpdate("f", std::nullopt, true, std::nullopt);                   // a folder
  EXPECT_EQ(anchor(), before);
  EXPECT_FALSE(applier.changed());

  applier.applyUpdate("doc.md", std::string("Doc"), false, NodeKind::blob);  // title only
  NodeRecord renamed = synced;
  renamed.title = "Doc";
  EXPECT_EQ(node("doc.md"), renamed);
  EXPECT_TRUE(applier.downloadNodeIds().empty());

  applier.applyUpdate("doc.md", std::nullopt, true, NodeKind::blob);
  const NodeRecord bumped = node("doc.md");
  EXPECT_EQ(bumped.contentVersion, 2);
  EXPECT_EQ(bumped.kind, NodeKind::blob);
  EXPECT_EQ(bumped.updatedAt, at);
  EXPECT_FALSE(bumped.blobHash || bumped.blobSize || bumped.uploadError);
  EXPECT_EQ(t.log(before), (Strings{"+n-1", "+n-1"}));

  // A local-only file is taken over by the server's version without a body flag.
  NodeRecord local = t.put("local:9", "mine.md");
  local.localOnly = true;
  t.store->upsertNode(local);
  applier.applyUpdate("mine.md", std::nullopt, false, std::nullopt);
  EXPECT_FALSE(node("mine.md").localOnly);
  EXPECT_EQ(node("mine.md").contentVersion, 2);

  // An update of something unknown creates it, titled by its name.
  applier.applyUpdate("new/made.md", std::nullopt, false, std::nullopt);
  EXPECT_EQ(node("new/made.md").title, "made.md");
  EXPECT_EQ(applier.downloadNodeIds().size(), 3u);
}

TEST_F(BatchApplierTest, DownloadRequestsFollowTheNodesAsTheyEndUp) {
  applier.applyCreate("one.md", "one", false, NodeKind::text);
  applier.applyCreate("gone.md", "gone", false, NodeKind::text);
  applier.applyCreate("two.md", "two", false, NodeKind::blob);
  const std::string one = node("one.md").nodeId;
  const std::string two = node("two.md").nodeId;
  applier.queueDownload(two);  // already queued: keeps its first place
  applier.deleteSubtree("gone.md");
  applier.applyMove("one.md", "moved/one.md");
  applier.applyUpdate("moved/one.md", std::nullopt, true, NodeKind::text);
  applier.queueDownload("dir:moved");  // folders are never downloaded

  EXPECT_THAT(applier.downloadRequests("c1"),
              ElementsAre(DownloadRequest{t.brainId, one, "moved/one.md", NodeKind::text, 2, "c1"},
                          DownloadRequest{t.brainId, two, "two.md", NodeKind::blob, 1, "c1"}));
}

TEST_F(BatchApplierTest, InsideATransactionItStillSeesWhatOthersWrote) {
  // The applier keeps what it wrote while it holds the write lock; writes by
  // anyone else in between must still be seen.
  t.store->writeTransaction([&] {
    applier.applyCreate("a/x.md", "x", false, NodeKind::text);
    EXPECT_TRUE(applier.nodeAtPath("a"));
    EXPECT_FALSE(applier.nodeAtPath("a/y.md"));

    t.store->deleteNode(t.brainId, "dir:a");
    NodeRecord other = node("a/x.md");
    other.nodeId = "n-other";
    other.path = "a/y.md";
    t.store->upsertNode(other);
    EXPECT_FALSE(applier.nodeAtPath("a"));
    EXPECT_EQ(applier.nodeAtPath("a/y.md"), other);

    applier.applyCreate("a/z.md", "z", false, NodeKind::text);  // makes "a" again
    EXPECT_TRUE(node("a").isDirectory);
    const std::string z = node("a/z.md").nodeId;
    t.store->updateNodePath(t.brainId, z, "elsewhere.md");
    EXPECT_EQ(applier.downloadRequests(std::nullopt).back().path, "elsewhere.md");
  });
  EXPECT_EQ(t.paths(), (Strings{"a", "a/x.md", "a/y.md", "elsewhere.md"}));
}

}  // namespace
}  // namespace synckit
