#include "synckit/conflicts/conflict_spool_pruner.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "synckit/testing/temporary_directory.h"

namespace synckit {
namespace {

using testing::entryNames;
using testing::TemporaryDirectory;

void touch(const std::filesystem::path& file) { std::ofstream(file) << "x"; }

class ConflictSpoolPruneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store = MetadataStore::open(temp / "Halvark" / "sync.sqlite");
    store->upsertBrain(BrainRecord{brainId, "notes", "Notes", std::nullopt});
    for (const char* nodeId : {"n-1", "caf\u00e9", "\xEF\xBF\xBD"}) {
      NodeRecord node;
      node.brainId = brainId;
      node.nodeId = nodeId;
      node.path = std::string("file-") + std::to_string(nodeCount++);
      node.title = node.path;
      store->upsertNode(node);
    }
  }

  // Queues changes until one gets `id`, then drops all but that one.
  void keepOnlyPendingChange(std::int64_t id) {
    std::vector<std::int64_t> made;
    for (;;) {
      PendingChange change;
      change.brainId = brainId;
      change.path = "p" + std::to_string(made.size());
      std::int64_t got = store->enqueue(change);
      made.push_back(got);
      if (got >= id) break;
    }
    for (std::int64_t other : made) {
      if (other != id) store->removePendingChange(other);
    }
    ASSERT_EQ(store->pendingChanges().size(), 1u);
    ASSERT_EQ(store->pendingChanges()[0].id, id);
  }

  TemporaryDirectory temp;
  Uuid brainId = Uuid::random();
  int nodeCount = 0;
  std::unique_ptr<MetadataStore> store;
};

TEST_F(ConflictSpoolPruneTest, DeletesOnlyEntriesWhoseChangeOrNodeIsGone) {
  keepOnlyPendingChange(7);
  ConflictSpool spool{temp / "Spool"};
  // clang-format off
  std::set<std::string> kept{
      "edit-7", "copy-7", "edit-+7", "edit-007",    // change 7 still waits
      "notes.txt", "edit-", "edit-abc", "copy-7x",  // no decimal id
      "edit-99999999999999999999",                  // too large to be an id
      "node-", "node-6e3", "node-zz",               // does not decode
      "node-6E2D31",                                // "n-1" in upper-case digits
      "node-636166c3a9",                            // "café"
      "node-ff", "node-c3", "node-e282",            // one U+FFFD each
      "nodes-6e2d32"};
  const std::set<std::string> deleted{
      "edit-8", "copy-12",
      "node-6e2d32",                                // "n-2"
      "node-63616fc3a9",                            // "caoé"
      "node-e282e282"};                             // two U+FFFD
  // clang-format on
  std::filesystem::create_directories(spool.directory);
  for (const auto& names : {kept, deleted}) {
    for (const std::string& name : names) touch(spool.directory / name);
  }
  for (const char* folder : {"edit-8-folder", "edit-9"}) {
    std::filesystem::create_directory(spool.directory / folder);
    kept.insert(folder);
  }

  ConflictSpoolPruner::prune(spool, *store);

  EXPECT_EQ(entryNames(spool.directory), kept);
}

TEST_F(ConflictSpoolPruneTest, ForgetsNodeEntriesOnceTheNodeIsGone) {
  ConflictSpool spool{temp / "Spool"};
  spool.write(toBytes("a"), ConflictSpool::nodeKey("n-1"));
  spool.write(toBytes("b"), ConflictSpool::nodeKey("caf\u00e9"));
  ConflictSpoolPruner::prune(spool, *store);
  EXPECT_EQ(entryNames(spool.directory).size(), 2u);

  store->deleteNode(brainId, "n-1");
  ConflictSpoolPruner::prune(spool, *store);
  EXPECT_EQ(entryNames(spool.directory),
            (std::set<std::string>{ConflictSpool::nodeKey("caf\u00e9")}));

  // A node only counts while some stored brain has it.
  store->deleteBrain(brainId);
  ConflictSpoolPruner::prune(spool, *store);
  EXPECT_TRUE(entryNames(spool.directory).empty());

  ConflictSpool missing{temp / "NoSpool"};
  EXPECT_NO_THROW(ConflictSpoolPruner::prune(missing, *store));
  EXPECT_FALSE(std::filesystem::exists(missing.directory));
}

}  // namespace
}  // namespace synckit
