#include "synckit/engine/node_content_snapshot.h"

#include <gtest/gtest.h>

#include "synckit/base/error.h"
#include "synckit/engine/feed_test_store.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

TEST(NodeContentSnapshotTest, LocalOnlyNodesNeedTheirSpooledBytes) {
  testing::FeedTestStore test;
  const ConflictSpool spool{test.directory / "spool"};
  NodeRecord synced = test.put("n1", "a.md");
  const NodeRecord local = test.put("local:1", "notes/b.md", false, true);

  EXPECT_EQ(NodeContentSnapshot::read(test.brainId, "gone", *test.store, spool), std::nullopt);
  EXPECT_EQ(NodeContentSnapshot::read(test.brainId, "n1", *test.store, spool),
            (NodeContentSnapshot{synced, std::nullopt, "c0"}));

  // Another node's or an edit's bytes do not stand in for the node's own.
  spool.write(toBytes("other"), ConflictSpool::nodeKey("n1"));
  spool.write(toBytes("edit"), ConflictSpool::editKey(1));
  auto missing = testing::thrownBy<FileNotFoundError>(
      [&] { NodeContentSnapshot::read(test.brainId, "local:1", *test.store, spool); });
  EXPECT_EQ(missing.path(), "notes/b.md");

  spool.write(toBytes("kept"), ConflictSpool::nodeKey("local:1"));
  EXPECT_EQ(NodeContentSnapshot::read(test.brainId, "local:1", *test.store, spool),
            (NodeContentSnapshot{local, toBytes("kept"), std::nullopt}));
}

}  // namespace
}  // namespace synckit
