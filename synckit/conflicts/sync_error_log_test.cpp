#include "synckit/conflicts/sync_error_log.h"

#include <gtest/gtest.h>

#include "synckit/engine/feed_test_store.h"
#include "synckit/store/meta_key.h"

namespace synckit {
namespace {

TEST(SyncErrorLogTest, KeepsTheNewestMessagesUntilDrainedAndReplacesADamagedList) {
  testing::FeedTestStore db;
  db.store->setMeta(MetaKey::syncErrors, "{not json");
  for (int i = 0; i < 22; ++i) SyncErrorLog::append({"error " + std::to_string(i)}, *db.store);

  auto drained = SyncErrorLog::drain(*db.store);
  ASSERT_EQ(drained.size(), SyncErrorLog::maxMessages);
  EXPECT_EQ(drained.front(), "error 2");
  EXPECT_EQ(drained.back(), "error 21");
  EXPECT_FALSE(db.store->metaValue(MetaKey::syncErrors));
  EXPECT_TRUE(SyncErrorLog::drain(*db.store).empty());
}

}  // namespace
}  // namespace synckit
