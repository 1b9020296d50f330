#include "synckit/store/local_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "synckit/store/sqlite_database.h"
#include "synckit/store/sync_item_identifier.h"
#include "synckit/testing/temporary_directory.h"

namespace synckit {
namespace {

using testing::TemporaryDirectory;

const Uuid kBrain = *Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const Uuid kOther = *Uuid::parse("0000AAAA-C36C-495A-93FC-0C247A3E6E5F");

IndexEntry file(const Uuid& brain, std::string nodeId, std::string path, std::int64_t version = 1) {
  return IndexEntry{brain, std::move(nodeId), std::move(path), false, version, 10, 20, 30, "ab12"};
}

std::vector<std::string> pathsOf(const std::vector<IndexEntry>& entries) {
  std::vector<std::string> paths;
  for (const auto& entry : entries) paths.push_back(entry.path);
  return paths;
}

TEST(LocalIndexTest, EntriesByNodeAndPathFolderMovesAndOneItemPerPath) {
  TemporaryDirectory temp;
  LocalIndex index(temp / "provider-index.sqlite");
  IndexEntry folder{kBrain, "n-x", "Notes/x", true, 0, 0, 5, 6, ""};
  // An inode above 2^63 must survive the signed column.
  IndexEntry big{kBrain, "n-1", "Notes/x/1.md", false, 3, 4, 5, 0xFFFF'FFFF'FFFF'FFF0ULL, ""};
  index.put(folder);
  index.put(big);
  index.put(file(kBrain, "n-e", "Notes/x/\u00e9t\u00e9/a.md"));
  index.put(file(kBrain, "n-x0", "Notes/x0"));  // shares "x" but is not below it
  index.put(file(kBrain, "n-xy", "Notes/xy"));
  index.put(file(kOther, "n-1", "Other/x/1.md"));

  EXPECT_EQ(index.entry(kBrain, "n-1"), big);
  EXPECT_EQ(index.entryAtPath("Notes/x"), folder);
  EXPECT_EQ(index.entry(kBrain, "missing"), std::nullopt);
  EXPECT_EQ(pathsOf(index.entries(kOther)), std::vector<std::string>{"Other/x/1.md"});
  EXPECT_EQ(pathsOf(index.entriesUnder("Notes/x")),
            (std::vector<std::string>{"Notes/x", "Notes/x/1.md", "Notes/x/\u00e9t\u00e9/a.md"}));

  index.movePrefix("Notes/x", "Notes/\u00fcber");
  EXPECT_EQ(
      pathsOf(index.entries(kBrain)),
      (std::vector<std::string>{"Notes/x0", "Notes/xy", "Notes/\u00fcber", "Notes/\u00fcber/1.md",
                                "Notes/\u00fcber/\u00e9t\u00e9/a.md"}));
  index.movePrefix("Notes/\u00fcber/\u00e9t\u00e9/a.md", "Notes/b.md");  // a single file
  EXPECT_EQ(index.entryAtPath("Notes/b.md")->nodeId, "n-e");

  // Another node put at a taken path replaces the row there; the same node
  // put again is updated in place.
  index.put(file(kBrain, "n-new", "Notes/xy", 7));
  EXPECT_EQ(index.entry(kBrain, "n-xy"), std::nullopt);
  index.put(file(kBrain, "n-new", "Notes/xy", 8));
  EXPECT_EQ(index.entryAtPath("Notes/xy")->contentVersion, 8);

  index.remove(kBrain, "n-new");
  EXPECT_EQ(index.entryAtPath("Notes/xy"), std::nullopt);
  EXPECT_EQ(index.entries(kBrain).size(), 4u);
  // Every brain's rows at once, in whatever order the table holds them.
  auto locations = index.locations();
  std::sort(locations.begin(), locations.end(),
            [](const auto& a, const auto& b) { return a.path < b.path; });
  ASSERT_EQ(locations.size(), 5u);
  EXPECT_EQ(locations[0], (LocalIndex::Location{"Notes/b.md", false, 10, 20, 30}));
  EXPECT_EQ(locations[2], (LocalIndex::Location{"Notes/\u00fcber", true, 0, 5, 6}));
  EXPECT_EQ(locations[3].inode, big.inode);
  EXPECT_EQ(locations[4].path, "Other/x/1.md");
}

TEST(LocalIndexTest, AnchorFoldersAndRetriesSurviveReopening) {
  TemporaryDirectory temp;
  {
    LocalIndex index(temp / "index.sqlite");
    EXPECT_EQ(index.anchor(), 0);
    index.setAnchor(42);
    index.setBrainFolder(kBrain, "Notes");
    index.setBrainFolder(kOther, "Other");
    index.setBrainFolder(kOther, "Other (b)");
    index.addRetry(kOther, "n-2");
    index.addRetry(kBrain, "n-1");
    index.addRetry(kOther, "n-2");
    EXPECT_THROW(index.transaction([&] {
      index.setAnchor(99);
      throw std::runtime_error("rolled back");
    }),
                 std::runtime_error);
  }
  LocalIndex index(temp / "index.sqlite");
  EXPECT_EQ(index.anchor(), 42);
  EXPECT_EQ(index.brainFolders(),
            (std::map<Uuid, std::string>{{kBrain, "Notes"}, {kOther, "Other (b)"}}));
  index.setBrainFolder(kBrain, std::nullopt);
  EXPECT_EQ(index.brainFolders().size(), 1u);
  EXPECT_EQ(index.retries(),
            (std::vector<std::pair<Uuid, std::string>>{{kOther, "n-2"}, {kBrain, "n-1"}}));
  index.removeRetry(kOther, "n-2");
  EXPECT_EQ(index.retries(), (std::vector<std::pair<Uuid, std::string>>{{kBrain, "n-1"}}));
}

TEST(LocalIndexTest, AnIndexOfTheFirstVersionGainsContentHashesAndKeepsItsRows) {
  TemporaryDirectory temp;
  {
    SQLiteDatabase old(temp / "index.sqlite");
    old.execute(
        "CREATE TABLE entries (brain_id TEXT NOT NULL, node_id TEXT NOT NULL, path TEXT NOT NULL "
        "UNIQUE, is_directory INTEGER NOT NULL, content_version INTEGER NOT NULL, size INTEGER NOT "
        "NULL, mtime_ns INTEGER NOT NULL, inode INTEGER NOT NULL, PRIMARY KEY (brain_id, "
        "node_id))");
    old.execute("INSERT INTO entries VALUES ('" + kBrain.toString() +
                "', 'n-1', 'Notes/a.md', 0, 2, 10, 20, 30)");
    old.execute("PRAGMA user_version = 1");
  }
  LocalIndex index(temp / "index.sqlite");
  auto entry = index.entry(kBrain, "n-1");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->contentHash, "");
  index.put(file(kBrain, "n-1", "Notes/a.md", 3));
  EXPECT_EQ(index.entry(kBrain, "n-1"), file(kBrain, "n-1", "Notes/a.md", 3));
}

TEST(LocalIndexTest, MaterializedPagesListEveryFileOnce) {
  TemporaryDirectory temp;
  const auto path = temp / "provider-index.sqlite";
  EXPECT_EQ(LocalIndex::materializedPage(path, 0, 500), LocalIndex::Page{});
  EXPECT_FALSE(std::filesystem::exists(path));  // asking never creates it

  LocalIndex index(path);
  std::set<std::string> expected;
  index.transaction([&] {
    for (int i = 0; i < 1200; ++i) {
      std::string node = "n" + std::to_string(i);
      if (i % 100 == 0) index.put({kBrain, "d" + node, "Notes/d" + node, true, 0, 0, 0, 0, ""});
      index.put(file(kBrain, node, "Notes/" + node));
      expected.insert(SyncItemIdentifier::node(kBrain, node).string());
    }
  });

  std::vector<std::string> seen;
  std::vector<std::size_t> sizes;
  std::optional<std::int64_t> after = 0;
  while (after) {
    auto page = LocalIndex::materializedPage(path, *after, 500);
    sizes.push_back(page.identifiers.size());
    seen.insert(seen.end(), page.identifiers.begin(), page.identifiers.end());
    // New content for a file already listed keeps its place in the order.
    if (sizes.size() == 1) index.put(file(kBrain, "n3", "Notes/n3", 2));
    after = page.next;
  }
  EXPECT_EQ(sizes, (std::vector<std::size_t>{500, 500, 200}));
  EXPECT_EQ(seen.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()), expected);

  // A last page that is exactly full says there is nothing after it.
  auto first = LocalIndex::materializedPage(path, 0, 600);
  ASSERT_TRUE(first.next);
  auto second = LocalIndex::materializedPage(path, *first.next, 600);
  EXPECT_EQ(second.identifiers.size(), 600u);
  EXPECT_EQ(second.next, std::nullopt);
}

}  // namespace
}  // namespace synckit
