#include "synckit/engine/local_mutations.h"

#include <gtest/gtest.h>

#include "synckit/engine/feed_test_store.h"

namespace synckit {
namespace {

const Timestamp now = *Timestamp::parse("2025-03-01T09:30:12.345Z");

class LocalMutationsTest : public ::testing::Test {
 protected:
  MetadataStore& store() { return *test.store; }
  const Uuid& brain() const { return test.brainId; }
  NodeRecord at(const std::string& path) { return *store().nodeAtPath(brain(), path); }
  std::int64_t journalEdit(const std::string& path) {
    return LocalMutations::journalUpsert(store(), brain(), path, std::nullopt, false, now);
  }

  testing::FeedTestStore test;
};

TEST_F(LocalMutationsTest, JournalTakesTheStoredCursorAsBase) {
  using namespace LocalMutations;
  const std::int64_t create = journalUpsert(store(), brain(), "a.md", std::nullopt, true, now);
  const std::int64_t update = journalUpsert(store(), brain(), "b.md", "n2", false, now);
  store().setCursor(brain(), "c1");
  const std::int64_t move = journalMove(store(), brain(), "n2", "b.md", "d/b.md", now);
  store().setCursor(brain(), std::nullopt);
  const std::int64_t remove = journalDelete(store(), brain(), std::nullopt, "x", now);

  using K = PendingChangeKind;
  EXPECT_EQ(store().pendingChanges(brain()),
            (std::vector<PendingChange>{
                {create, brain(), std::nullopt, K::create, "a.md", std::nullopt, "c0", now},
                {update, brain(), "n2", K::update, "b.md", std::nullopt, "c0", now},
                {move, brain(), "n2", K::move, "d/b.md", "b.md", "c1", now},
                {remove, brain(), std::nullopt, K::delete_, "x", std::nullopt, std::nullopt, now},
            }));
}

TEST_F(LocalMutationsTest, UploadCreatesFoldersAndReplacesWhatSitsAtThePath) {
  using LocalMutations::applyUpload;
  // A new file below missing folders, as a blob.
  const std::int64_t journal = journalEdit("x/y/new.png");
  NodeRecord created = applyUpload(store(), brain(), WriteResult{{"s1", "x/y/new.png"}, "c2"},
                                   NodeKind::blob, "hash", 7, journal, now);
  EXPECT_EQ(created, (NodeRecord{brain(), "s1", "x/y/new.png", "new", false, NodeKind::blob, "hash",
                                 7, now, 1, false, std::nullopt}));
  EXPECT_EQ(store().nodeWithId(brain(), "s1"), created);
  EXPECT_EQ(at("x/y").nodeId, "dir:x/y");
  EXPECT_EQ(at("x/y").updatedAt, now);
  EXPECT_EQ(test.log(), (std::vector<std::string>{"+dir:x", "+dir:x/y", "+s1"}));
  EXPECT_EQ(store().pendingChange(journal), std::nullopt);

  // Over a file: the stored node keeps its id and title, its content moves on,
  // and a text upload drops the blob fields and the error.
  NodeRecord old = test.put("n1", "a.png");
  old.title = "Alpha";
  old.kind = NodeKind::blob;
  old.blobHash = "old";
  old.blobSize = 3;
  old.localOnly = true;
  old.uploadError = "Not uploaded: nope";
  store().upsertNode(old);
  const std::int64_t anchor = store().currentAnchor();
  NodeRecord updated = applyUpload(store(), brain(), WriteResult{{"s2", "a.png"}, "c3"},
                                   NodeKind::text, "ignored", 9, std::nullopt, now);
  EXPECT_EQ(updated, (NodeRecord{brain(), "n1", "a.png", "Alpha", false, NodeKind::text,
                                 std::nullopt, std::nullopt, now, 2, false, std::nullopt}));
  EXPECT_EQ(store().nodeWithId(brain(), "n1"), updated);
  EXPECT_EQ(store().nodeWithId(brain(), "s2"), std::nullopt);
  EXPECT_EQ(test.log(anchor), std::vector<std::string>{"+n1"});

  // Over a folder: the folder and everything in it go first.
  test.put("dir:f", "f", true);
  test.put("c", "f/c.md");
  const std::int64_t beforeFolder = store().currentAnchor();
  applyUpload(store(), brain(), WriteResult{{"s3", "f"}, "c4"}, NodeKind::text, std::nullopt,
              std::nullopt, std::nullopt, now);
  EXPECT_EQ(at("f").nodeId, "s3");
  EXPECT_FALSE(at("f").isDirectory);
  EXPECT_EQ(store().nodeAtPath(brain(), "f/c.md"), std::nullopt);
  EXPECT_EQ(test.log(beforeFolder), (std::vector<std::string>{"-dir:f", "-c", "+s3"}));
}

TEST_F(LocalMutationsTest, LocalItemsReplaceWhatSitsAtThePath) {
  using namespace LocalMutations;
  test.put("dir:p", "p", true);
  test.put("c", "p/c.md");
  NodeRecord file = applyLocalOnly(store(), brain(), "p", "No write access", now);
  EXPECT_TRUE(file.nodeId.starts_with("local:"));
  EXPECT_EQ(Uuid::parse(file.nodeId.substr(6))->toString(), file.nodeId.substr(6));
  EXPECT_EQ(file, (NodeRecord{brain(), file.nodeId, "p", "p", false, NodeKind::text, std::nullopt,
                              std::nullopt, now, 1, true, "No write access"}));
  EXPECT_EQ(test.paths(), std::vector<std::string>{"p"});
  EXPECT_EQ(test.log(), (std::vector<std::string>{"-dir:p", "-c", "+" + file.nodeId}));

  // A folder takes the file's place; asking again changes nothing.
  NodeRecord folder = applyLocalDirectory(store(), brain(), "p", now);
  EXPECT_EQ(folder, (NodeRecord{brain(), "dir:p", "p", "p", true, NodeKind::text, std::nullopt,
                                std::nullopt, now, 0, false, std::nullopt}));
  const auto before = test.state();
  EXPECT_EQ(applyLocalDirectory(store(), brain(), "p", Timestamp::now()), folder);
  EXPECT_EQ(test.state(), before);

  NodeRecord nested = applyLocalOnly(store(), brain(), "p/q/r.txt", std::nullopt, now);
  EXPECT_EQ(nested.title, "r");
  EXPECT_EQ(nested.uploadError, std::nullopt);
  EXPECT_EQ(test.paths(), (std::vector<std::string>{"p", "p/q", "p/q/r.txt"}));
}

TEST_F(LocalMutationsTest, MovesAndDeletesDropTheirJournalEntry) {
  using namespace LocalMutations;
  test.put("dir:a", "a", true);
  test.put("b", "a/b.md");
  test.put("k", "keep.md");

  const std::int64_t moveJournal = journalEdit("z");
  EXPECT_TRUE(applyMove(store(), brain(), "a", "z", moveJournal, now));
  EXPECT_EQ(test.paths(), (std::vector<std::string>{"keep.md", "z", "z/b.md"}));
  EXPECT_EQ(store().pendingChange(moveJournal), std::nullopt);

  // An ignored destination takes the item out of what is synced.
  EXPECT_TRUE(applyMove(store(), brain(), "z", "y/.DS_Store", std::nullopt, now));
  EXPECT_EQ(test.paths(), std::vector<std::string>{"keep.md"});

  const std::int64_t missing = journalEdit("nothing");
  EXPECT_FALSE(applyMove(store(), brain(), "nothing", "else", missing, now));
  EXPECT_EQ(store().pendingChange(missing), std::nullopt);

  const std::int64_t deleteJournal = journalEdit("keep.md");
  EXPECT_FALSE(applyDelete(store(), brain(), "gone.md", std::nullopt, now));
  EXPECT_TRUE(applyDelete(store(), brain(), "keep.md", deleteJournal, now));
  EXPECT_TRUE(test.paths().empty());
  EXPECT_TRUE(store().pendingChanges(brain()).empty());
}

TEST_F(LocalMutationsTest, UploadErrorIsSetClearedAndLogged) {
  using LocalMutations::markUploadError;
  test.put("n1", "a.md");
  markUploadError(store(), brain(), "n1", "Not moved: taken");
  EXPECT_EQ(at("a.md").uploadError, "Not moved: taken");
  markUploadError(store(), brain(), "n1", std::nullopt);
  EXPECT_EQ(at("a.md").uploadError, std::nullopt);
  EXPECT_EQ(test.log(), (std::vector<std::string>{"+n1", "+n1"}));

  const auto before = test.state();
  markUploadError(store(), brain(), "unknown", "x");
  EXPECT_EQ(test.state(), before);
}

}  // namespace
}  // namespace synckit
