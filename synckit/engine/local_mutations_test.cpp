#include "synckit/engine/local_mutations.h"

#include <gtest/gtest.h>

#include "synckit/engine/feed_test_store.h"

namespace synckit {
namespace {

using namespace LocalMutations;
using Strings = std::vector<std::string>;
constexpr auto none = std::nullopt;
const Timestamp now = *Timestamp::parse("2025-03-01T09:30:12.345Z");

class LocalMutationsTest : public ::testing::Test {
 protected:
  std::int64_t journalEdit(const std::string& path) {
    return journalUpsert(store, t.brainId, path, none, false, now);
  }

  testing::FeedTestStore t;
  MetadataStore& store = *t.store;
  const Uuid& brain = t.brainId;
};

TEST_F(LocalMutationsTest, JournalTakesTheStoredCursorAsBase) {
  const std::int64_t create = journalUpsert(store, brain, "a.md", none, true, now);
  const std::int64_t update = journalUpsert(store, brain, "b.md", "n2", false, now);
  store.setCursor(brain, "c1");
  const std::int64_t move = journalMove(store, brain, "n2", "b.md", "d/b.md", now);
  store.setCursor(brain, none);
  const std::int64_t remove = journalDelete(store, brain, none, "x", now);

  using K = PendingChangeKind;
  EXPECT_EQ(store.pendingChanges(brain),
            (std::vector<PendingChange>{{create, brain, none, K::create, "a.md", none, "c0", now},
                                        {update, brain, "n2", K::update, "b.md", none, "c0", now},
                                        {move, brain, "n2", K::move, "d/b.md", "b.md", "c1", now},
                                        {remove, brain, none, K::delete_, "x", none, none, now}}));
}

TEST_F(LocalMutationsTest, UploadCreatesFoldersAndReplacesWhatSitsAtThePath) {
  // A new file below missing folders, as a blob.
  const std::int64_t journal = journalEdit("x/y/new.png");
  EXPECT_EQ(applyUpload(store, brain, WriteResult{{"s1", "x/y/new.png"}, "c2"}, NodeKind::blob,
                        "hash", 7, journal, now),
            (NodeRecord{brain, "s1", "x/y/new.png", "new", false, NodeKind::blob, "hash", 7, now, 1,
                        false, none}));
  EXPECT_EQ(t.node("x/y").updatedAt, now);
  EXPECT_EQ(t.log(), (Strings{"+dir:x", "+dir:x/y", "+s1"}));
  EXPECT_EQ(store.pendingChange(journal), none);

  // Over a file: the stored node keeps its id and title, its content version
  // moves on, and a text upload drops the blob fields and the error.
  NodeRecord old = t.put("n1", "a.png", false, true);
  old.title = "Alpha";
  old.kind = NodeKind::blob;
  old.blobHash = "old";
  old.blobSize = 3;
  old.uploadError = "Not uploaded: nope";
  store.upsertNode(old);
  std::int64_t anchor = store.currentAnchor();
  const NodeRecord updated{brain, "n1", "a.png", "Alpha", false, NodeKind::text,
                           none,  none, now,     2,       false, none};
  EXPECT_EQ(applyUpload(store, brain, WriteResult{{"s2", "a.png"}, "c3"}, NodeKind::text, "ignored",
                        9, none, now),
            updated);
  EXPECT_EQ(store.nodeWithId(brain, "n1"), updated);
  EXPECT_EQ(t.log(anchor), Strings{"+n1"});

  // Over a folder: the folder and everything in it go first.
  t.put("dir:f", "f", true);
  t.put("c", "f/c.md");
  anchor = store.currentAnchor();
  applyUpload(store, brain, WriteResult{{"s3", "f"}, "c4"}, NodeKind::text, none, none, none, now);
  EXPECT_FALSE(t.node("f").isDirectory);
  EXPECT_EQ(t.log(anchor), (Strings{"-dir:f", "-c", "+s3"}));
  EXPECT_EQ(t.tree(), (Strings{"a.png=n1", "f=s3", "x=dir:x", "x/y=dir:x/y", "x/y/new.png=s1"}));
}

TEST_F(LocalMutationsTest, LocalItemsReplaceWhatSitsAtThePath) {
  t.put("dir:p", "p", true);
  t.put("c", "p/c.md");
  NodeRecord file = applyLocalOnly(store, brain, "p", "No write access", now);
  EXPECT_EQ(Uuid::parse(file.nodeId.substr(6))->toString(), file.nodeId.substr(6));
  EXPECT_EQ(file, (NodeRecord{brain, "local:" + file.nodeId.substr(6), "p", "p", false,
                              NodeKind::text, none, none, now, 1, true, "No write access"}));
  EXPECT_EQ(t.log(), (Strings{"-dir:p", "-c", "+" + file.nodeId}));

  // A folder takes the file's place; asking again changes nothing.
  NodeRecord folder = applyLocalDirectory(store, brain, "p", now);
  EXPECT_EQ(folder, (NodeRecord{brain, "dir:p", "p", "p", true, NodeKind::text, none, none, now, 0,
                                false, none}));
  const auto before = t.state();
  EXPECT_EQ(applyLocalDirectory(store, brain, "p", Timestamp::now()), folder);
  EXPECT_EQ(t.state(), before);

  EXPECT_EQ(applyLocalOnly(store, brain, "p/q/r.txt", none, now).title, "r");
  EXPECT_EQ(t.paths(), (Strings{"p", "p/q", "p/q/r.txt"}));
}

TEST_F(LocalMutationsTest, MovesAndDeletesDropTheirJournalEntry) {
  t.put("dir:a", "a", true);
  t.put("b", "a/b.md");
  t.put("k", "keep.md");

  EXPECT_TRUE(applyMove(store, brain, "a", "z", journalEdit("z"), now));
  EXPECT_EQ(t.paths(), (Strings{"keep.md", "z", "z/b.md"}));
  // An ignored destination takes the item out of what is synced.
  EXPECT_TRUE(applyMove(store, brain, "z", "y/.DS_Store", none, now));
  EXPECT_EQ(t.paths(), Strings{"keep.md"});
  EXPECT_FALSE(applyMove(store, brain, "nothing", "else", journalEdit("nothing"), now));
  EXPECT_FALSE(applyDelete(store, brain, "gone.md", none, now));
  EXPECT_TRUE(applyDelete(store, brain, "keep.md", journalEdit("keep.md"), now));
  EXPECT_TRUE(t.paths().empty());
  EXPECT_TRUE(store.pendingChanges(brain).empty());
}

TEST_F(LocalMutationsTest, UploadErrorIsSetClearedAndLogged) {
  t.put("n1", "a.md");
  markUploadError(store, brain, "n1", "Not moved: taken");
  EXPECT_EQ(t.node("a.md").uploadError, "Not moved: taken");
  markUploadError(store, brain, "n1", none);
  EXPECT_EQ(t.node("a.md").uploadError, none);
  EXPECT_EQ(t.log(), (Strings{"+n1", "+n1"}));

  const auto before = t.state();
  markUploadError(store, brain, "unknown", "x");
  EXPECT_EQ(t.state(), before);
}

}  // namespace
}  // namespace synckit
