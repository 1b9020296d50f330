#include "synckit/engine/batch_applier.h"

#include <gtest/gtest.h>

#include "synckit/engine/feed_test_store.h"

namespace synckit {
namespace {

using Strings = std::vector<std::string>;
constexpr auto none = std::nullopt;

class BatchApplierTest : public ::testing::Test {
 protected:
  NodeRecord node(std::string_view path) { return t.node(path); }
  std::int64_t anchor() { return t.store->currentAnchor(); }

  testing::FeedTestStore t;
  BatchApplier applier{t.brainId, *t.store};
};

TEST_F(BatchApplierTest, CreatesFilesWithLocalIdsAndTheirMissingFolders) {
  const Timestamp at = *Timestamp::parse("2026-02-03T04:05:06.789Z");
  applier.setEntryDate(at);
  applier.applyCreate("x/y/n.md", "Note", false, NodeKind::blob);
  applier.applyCreate("x/z", "Zed", true, NodeKind::blob);

  const NodeRecord file = node("x/y/n.md");
  ASSERT_TRUE(file.nodeId.starts_with("local:"));
  EXPECT_EQ(Uuid::parse(file.nodeId.substr(6))->toString(), file.nodeId.substr(6));  // upper case
  EXPECT_EQ(file, (NodeRecord{t.brainId, file.nodeId, "x/y/n.md", "Note", false, NodeKind::blob,
                              none, none, at, 1, false, none}));
  EXPECT_EQ(node("x/z"), (NodeRecord{t.brainId, "dir:x/z", "x/z", "Zed", true, NodeKind::text, none,
                                     none, at, 0, false, none}));
  EXPECT_EQ(node("x/y").title, "y");
  EXPECT_EQ(t.log(), (Strings{"+dir:x", "+dir:x/y", "+" + file.nodeId, "+dir:x/z"}));
  EXPECT_TRUE(applier.changed());
  EXPECT_EQ(applier.downloadRequests("c9"),
            (std::vector<DownloadRequest>{
                {t.brainId, file.nodeId, "x/y/n.md", NodeKind::blob, 1, std::string("c9")}}));

  // A file in the way of a folder goes first, and leaves the queue.
  applier.applyCreate("x/y/n.md/inner", "inner", false, NodeKind::text);
  EXPECT_TRUE(node("x/y/n.md").isDirectory);
  EXPECT_NE(node("x/y/n.md/inner").nodeId, file.nodeId);
  EXPECT_EQ(applier.downloadRequests(std::nullopt).size(), 1u);
}

TEST_F(BatchApplierTest, MovesExactlyTheSubtreeAndRekeysEngineFolders) {
  t.put("dir:a", "a", true);
  t.put("n-f", "a/f");
  NodeRecord titled = t.put("dir:a/b", "a/b", true);
  titled.title = "Bee";
  t.store->upsertNode(titled);
  t.put("n-g", "a/b/g");
  t.put("srv-c", "a/c", true);  // the server's own folder id
  t.put("n-ab", "ab");
  t.put("n-a0", "a0");
  const std::int64_t before = anchor();

  applier.applyMove("a", "x/y/z");
  EXPECT_EQ(t.tree(),
            (Strings{"a0=n-a0", "ab=n-ab", "x=dir:x", "x/y=dir:x/y", "x/y/z=dir:x/y/z",
                     "x/y/z/b=dir:x/y/z/b", "x/y/z/b/g=n-g", "x/y/z/c=srv-c", "x/y/z/f=n-f"}));
  // A folder titled by its name follows the new name; another title stays.
  EXPECT_EQ(node("x/y/z").title, "z");
  EXPECT_EQ(node("x/y/z/b").title, "Bee");
  EXPECT_EQ(node("x/y/z/f").title, "f");
  EXPECT_EQ(t.log(before), (Strings{"+dir:x", "+dir:x/y", "-dir:a", "+dir:x/y/z", "-dir:a/b",
                                    "+dir:x/y/z/b", "+n-g", "+srv-c", "+n-f"}));

  // Onto itself, into its own subtree, or of nothing: no row, no log. A
  // sibling whose name extends it is not inside it.
  const std::int64_t after = anchor();
  applier.applyMove("x/y/z", "x/y/z");
  applier.applyMove("x/y/z", "x/y/z/b/inside");
  applier.applyMove("x/y", "x/y/z/b");
  applier.applyMove("missing", "elsewhere");
  applier.applyMove("x/y/z/b", "x/y/z/b0");
  EXPECT_EQ(t.log(after), (Strings{"-dir:x/y/z/b", "+dir:x/y/z/b0", "+n-g"}));
  EXPECT_EQ(node("x/y/z/b0/g").nodeId, "n-g");
}

TEST_F(BatchApplierTest, MoveOntoAnOccupiedPathReplacesWhatWasThere) {
  t.put("n-src", "src.md");
  t.put("srv-dst", "dst", true);
  t.put("n-old", "dst/old.md");
  t.put("n-keep", "dst0");
  applier.queueDownload("n-old");
  const std::int64_t before = anchor();

  applier.applyMove("src.md", "dst");
  EXPECT_EQ(t.tree(), (Strings{"dst=n-src", "dst0=n-keep"}));
  EXPECT_EQ(t.log(before), (Strings{"-srv-dst", "-n-old", "+n-src"}));
  EXPECT_TRUE(applier.downloadRequests(std::nullopt).empty());

  // Moving a folder's child up over the folder: the moving nodes are spared.
  t.put("dir:p", "p", true);
  t.put("n-q", "p/q", true);
  t.put("n-r", "p/q/r");
  applier.applyMove("p/q", "p");
  EXPECT_EQ(t.tree(), (Strings{"dst=n-src", "dst0=n-keep", "p=n-q", "p/r=n-r"}));
}

TEST_F(BatchApplierTest, DeleteSubtreeTakesLocalOnlyChildrenAndSparesWhatItIsTold) {
  t.put("dir:a", "a", true);
  t.put("local:1", "a/draft.md", false, true);
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
  EXPECT_EQ(t.paths(), (Strings{"ab.md"}));
}

TEST_F(BatchApplierTest, UpdatesRetitleAndBumpContentOnlyWhenAsked) {
  NodeRecord synced = t.put("n-1", "doc.md");
  synced.blobHash = std::string(64, 'a');
  synced.blobSize = 10;
  synced.uploadError = "too big";
  t.store->upsertNode(synced);
  t.put("dir:f", "f", true);
  t.put("local:9", "mine.md", false, true);
  const Timestamp at = *Timestamp::parse("2026-03-03T03:03:03.333Z");
  applier.setEntryDate(at);
  const std::int64_t before = anchor();

  applier.applyUpdate("doc.md", std::string("doc.md"), false, NodeKind::blob);  // same title
  applier.applyUpdate("f", std::nullopt, true, std::nullopt);                   // a folder
  EXPECT_EQ(anchor(), before);
  EXPECT_FALSE(applier.changed());

  applier.applyUpdate("doc.md", std::string("Doc"), false, NodeKind::blob);  // title only
  synced.title = "Doc";
  EXPECT_EQ(node("doc.md"), synced);
  EXPECT_TRUE(applier.downloadNodeIds().empty());

  applier.applyUpdate("doc.md", std::nullopt, true, NodeKind::blob);
  EXPECT_EQ(node("doc.md"), (NodeRecord{t.brainId, "n-1", "doc.md", "Doc", false, NodeKind::blob,
                                        none, none, at, 2, false, none}));
  EXPECT_EQ(t.log(before), (Strings{"+n-1", "+n-1"}));

  // A local-only file is taken over by the server's version without a body
  // flag; an update of something unknown creates it, titled by its name.
  applier.applyUpdate("mine.md", std::nullopt, false, std::nullopt);
  EXPECT_FALSE(node("mine.md").localOnly);
  EXPECT_EQ(node("mine.md").contentVersion, 2);
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

  EXPECT_EQ(applier.downloadRequests("c1"),
            (std::vector<DownloadRequest>{{t.brainId, one, "moved/one.md", NodeKind::text, 2, "c1"},
                                          {t.brainId, two, "two.md", NodeKind::blob, 1, "c1"}}));
}

TEST_F(BatchApplierTest, InsideATransactionItStillSeesWhatOthersWrote) {
  // The applier remembers what it wrote while it holds the write lock;
  // writes by anyone else in between must still be seen.
  t.store->writeTransaction([&] {
    applier.applyCreate("a/x.md", "x", false, NodeKind::text);
    t.store->deleteNode(t.brainId, "dir:a");
    const NodeRecord other = t.put("n-other", "a/y.md");
    EXPECT_FALSE(applier.nodeAtPath("a"));
    EXPECT_EQ(applier.nodeAtPath("a/y.md"), other);

    applier.applyCreate("a/z.md", "z", false, NodeKind::text);  // makes "a" again
    t.store->updateNodePath(t.brainId, node("a/z.md").nodeId, "elsewhere.md");
    EXPECT_EQ(applier.downloadRequests(std::nullopt).back().path, "elsewhere.md");
  });
  EXPECT_EQ(t.paths(), (Strings{"a", "a/x.md", "a/y.md", "elsewhere.md"}));
}

}  // namespace
}  // namespace synckit
