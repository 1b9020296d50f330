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
constexpr std::int64_t now = 1'750'000'000'000;

Timestamp at(std::int64_t offset) { return Timestamp::fromMilliseconds(now + offset); }

TEST(StatusTextTest, BrainTitlesStatusLinesAndVersionLine) {
  const BrainSyncStatus neverSynced{{}, "Notes", BrainSyncStatus::State::idle(), std::nullopt, 2};
  const BrainSyncStatus syncing{{}, "Notes", BrainSyncStatus::State::syncing(), at(-5 * minute), 0};
  const BrainSyncStatus failing{{}, "Team", BrainSyncStatus::State::error("Denied"), at(-day), 1};
  EXPECT_EQ(StatusText::brainTitle(neverSynced, at(0)), "Notes — Not synced yet — ⚠ 2");
  EXPECT_EQ(StatusText::brainTitle(syncing, at(0)), "Notes — 5 minutes ago — Syncing…");
  EXPECT_EQ(StatusText::brainTitle(failing, at(0)), "Team — yesterday — Error — ⚠ 1");
  EXPECT_EQ(StatusText::statusLine(failing.state), "Sync error: Denied");
  EXPECT_EQ(StatusText::statusLine(AggregateState{AggregateState::Kind::error, "Offline"}),
            "Sync error: Offline");
  EXPECT_EQ(StatusText::statusLine(AggregateState{AggregateState::Kind::syncing, ""}), "Syncing…");
  EXPECT_EQ(StatusText::statusLine(AggregateState{}), "Up to date");
  EXPECT_EQ(StatusText::versionLine("0.1.0", "1"), "Halvark 0.1.0 (1)");
  EXPECT_EQ(StatusText::versionLine("", ""), "Halvark ? (?)");
}

TEST(StatusTextTest, RelativeTimeAtTheBoundariesOfEachUnit) {
  const std::vector<std::pair<std::int64_t, std::string>> cases{
      {-999, "now"},
      {999, "now"},
      {-second, "1 second ago"},
      {-(minute - 1), "59 seconds ago"},
      {-minute, "1 minute ago"},
      {-hour, "1 hour ago"},
      {-(day - 1), "23 hours ago"},
      {-(2 * day - 1), "yesterday"},
      {-2 * day, "2 days ago"},
      {-7 * day, "1 week ago"},
      {-29 * day, "4 weeks ago"},
      {-30 * day, "1 month ago"},
      {-364 * day, "11 months ago"},
      {-730 * day, "2 years ago"},
      {5 * minute, "in 5 minutes"},
      {day, "tomorrow"},
  };
  for (const auto& [offset, text] : cases) {
    EXPECT_EQ(StatusText::relativeTime(at(offset), at(0)), text) << "offset " << offset;
  }
}

TEST(StatusTextTest, ProgressCountsFilesAndBytesLeftOnlyWhileDownloading) {
  using synckit::ProviderProgress;
  EXPECT_EQ(StatusText::progressLine(std::nullopt), std::nullopt);
  EXPECT_EQ(StatusText::progressLine(ProviderProgress{4, 100, true, {}}), std::nullopt);
  EXPECT_EQ(StatusText::progressLine(ProviderProgress{1, 999, false, {}}),
            "Downloading 1 file (999 bytes) left");
  EXPECT_EQ(StatusText::progressLine(ProviderProgress{12, 340'000, false, {}}),
            "Downloading 12 files (340 KB) left");
  EXPECT_EQ(StatusText::progressLine(ProviderProgress{2, 999'999, false, {}}),
            "Downloading 2 files (1.0 MB) left");
}

}  // namespace
}  // namespace halvark
