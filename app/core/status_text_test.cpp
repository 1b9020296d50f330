#include "app/core/status_text.h"

#include <gtest/gtest.h>

namespace halvark {
namespace {

using synckit::BrainSyncStatus;
using synckit::Timestamp;

constexpr std::int64_t second = 1000;
constexpr std::int64_t minute = 60 * second;
constexpr std::int64_t hour = 60 * minute;
constexpr std::int64_t day = 24 * hour;

TEST(StatusTextTest, StatusLinesAndBrainTitles) {
  const Timestamp now = Timestamp::fromMilliseconds(1'750'000'000'000);
  const BrainSyncStatus neverSynced{{}, "Notes", BrainSyncStatus::State::idle(), std::nullopt, 2};
  EXPECT_EQ(StatusText::brainTitle(neverSynced, now), "Notes — Not synced yet — ⚠ 2");

  const BrainSyncStatus syncing{
      {},
      "Notes",
      BrainSyncStatus::State::syncing(),
      Timestamp::fromMilliseconds(now.millisecondsSinceEpoch() - 5 * minute),
      0};
  EXPECT_EQ(StatusText::brainTitle(syncing, now), "Notes — 5 minutes ago — Syncing…");

  const BrainSyncStatus failing{{},
                                "Team",
                                BrainSyncStatus::State::error("1 upload error"),
                                Timestamp::fromMilliseconds(now.millisecondsSinceEpoch() - day),
                                1};
  EXPECT_EQ(StatusText::brainTitle(failing, now), "Team — yesterday — Error — ⚠ 1");
  EXPECT_EQ(StatusText::statusLine(failing.state), "Sync error: 1 upload error");
  EXPECT_EQ(StatusText::statusLine(syncing.state), "Syncing…");
  EXPECT_EQ(StatusText::statusLine(neverSynced.state), "Up to date");

  EXPECT_EQ(StatusText::statusLine(AggregateState{AggregateState::Kind::error, "Offline"}),
            "Sync error: Offline");
  EXPECT_EQ(StatusText::statusLine(AggregateState{AggregateState::Kind::syncing, ""}), "Syncing…");
  EXPECT_EQ(StatusText::statusLine(AggregateState{}), "Up to date");

  EXPECT_EQ(StatusText::versionLine("0.1.0", "1"), "Halvark 0.1.0 (1)");
  EXPECT_EQ(StatusText::versionLine("", ""), "Halvark ? (?)");
}

TEST(StatusTextTest, RelativeTimeAtTheBoundariesOfEachUnit) {
  const std::int64_t now = 1'750'000'000'000;
  const std::vector<std::pair<std::int64_t, std::string>> cases{
      {0, "now"},
      {-999, "now"},
      {999, "now"},
      {-second, "1 second ago"},
      {-59 * second, "59 seconds ago"},
      {-minute, "1 minute ago"},
      {-(hour - 1), "59 minutes ago"},
      {-hour, "1 hour ago"},
      {-(day - 1), "23 hours ago"},
      {-day, "yesterday"},
      {-(2 * day - 1), "yesterday"},
      {-2 * day, "2 days ago"},
      {-(7 * day - 1), "6 days ago"},
      {-7 * day, "1 week ago"},
      {-29 * day, "4 weeks ago"},
      {-30 * day, "1 month ago"},
      {-364 * day, "11 months ago"},
      {-365 * day, "1 year ago"},
      {-730 * day, "2 years ago"},
      {second, "in 1 second"},
      {5 * minute, "in 5 minutes"},
      {day, "tomorrow"},
      {3 * 7 * day, "in 3 weeks"},
  };
  for (const auto& [offset, text] : cases) {
    EXPECT_EQ(StatusText::relativeTime(Timestamp::fromMilliseconds(now + offset),
                                       Timestamp::fromMilliseconds(now)),
              text)
        << "offset " << offset;
  }
}

}  // namespace
}  // namespace halvark
