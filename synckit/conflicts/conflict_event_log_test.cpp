#include "synckit/conflicts/conflict_event_log.h"

#include <gtest/gtest.h>

#include "synckit/engine/feed_test_store.h"

namespace synckit {
namespace {

ConflictEvent event(int number, std::optional<std::string> copyPath = std::nullopt) {
  ConflictEvent event;
  event.kind = ConflictEvent::Kind::resetConflict;
  event.brainId = *Uuid::parse("6F1D3C2B-8A4E-4F10-9B7C-1E2D3F4A5B6C");
  event.path = "notes/" + std::to_string(number) + ".md";
  event.copyPath = std::move(copyPath);
  event.message = "message " + std::to_string(number);
  event.at = Timestamp::fromMilliseconds(1'735'689'600'123 + number);
  return event;
}

class ConflictEventLogTest : public ::testing::Test {
 protected:
  std::optional<std::string> stored() { return db.store->metaValue(MetaKey::conflictEvents); }
  testing::FeedTestStore db;
};

TEST_F(ConflictEventLogTest, KeepsTheNewestFiftyOldestFirst) {
  std::vector<ConflictEvent> first;
  for (int i = 0; i < 49; ++i) first.push_back(event(i));
  ConflictEventLog::append(first, *db.store);
  ConflictEventLog::append({event(49), event(50), event(51)}, *db.store);

  auto drained = ConflictEventLog::drain(*db.store);
  ASSERT_EQ(drained.size(), ConflictEventLog::maxEvents);
  EXPECT_EQ(drained.front(), event(2));
  EXPECT_EQ(drained.back(), event(51));
  EXPECT_FALSE(stored());
  EXPECT_TRUE(ConflictEventLog::drain(*db.store).empty());
  EXPECT_FALSE(stored());
}

TEST_F(ConflictEventLogTest, StoresSortedKeysAndLeavesOutAnAbsentCopyPath) {
  ConflictEventLog::append({}, *db.store);
  EXPECT_FALSE(stored());

  ConflictEventLog::append({event(1), event(2, "notes/2 (conflicted copy).md")}, *db.store);
  EXPECT_EQ(*stored(),
            "[{\"at\":\"2025-01-01T00:00:00.124Z\",\"brainId\":\"6F1D3C2B-8A4E-4F10-9B7C-"
            "1E2D3F4A5B6C\",\"kind\":\"resetConflict\",\"message\":\"message 1\",\"path\":"
            "\"notes/1.md\"},{\"at\":\"2025-01-01T00:00:00.125Z\",\"brainId\":\"6F1D3C2B-8A4E-"
            "4F10-9B7C-1E2D3F4A5B6C\",\"copyPath\":\"notes/2 (conflicted copy).md\",\"kind\":"
            "\"resetConflict\",\"message\":\"message 2\",\"path\":\"notes/2.md\"}]");
  auto drained = ConflictEventLog::drain(*db.store);
  EXPECT_EQ(drained,
            (std::vector<ConflictEvent>{event(1), event(2, "notes/2 (conflicted copy).md")}));
}

TEST_F(ConflictEventLogTest, AMalformedListFailsTheDrainAndStays) {
  for (std::string bad : {"{\"kind\":1}", "[{\"kind\":\"other\"}]", "not json"}) {
    db.store->setMeta(MetaKey::conflictEvents, bad);
    EXPECT_THROW(ConflictEventLog::drain(*db.store), DecodingError) << bad;
    EXPECT_THROW(ConflictEventLog::append({event(1)}, *db.store), DecodingError) << bad;
    EXPECT_EQ(stored(), bad);
  }
}

}  // namespace
}  // namespace synckit
