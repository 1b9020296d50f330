#include "app/core/status_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace halvark::StatusText {

namespace {

// Decimal units, as file managers show sizes: "999 bytes", "4.1 KB", "340 KB".
std::string sizeText(std::int64_t bytes) {
  if (bytes < 1000) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  static constexpr const char* units[] = {"KB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (value /= 1000; value >= 999.5 && unit + 1 < std::size(units); value /= 1000) ++unit;
  char text[32];
  std::snprintf(text, sizeof text, value < 9.95 ? "%.1f %s" : "%.0f %s", value, units[unit]);
  return text;
}

constexpr std::string_view separator = " — ";

std::string line(synckit::BrainSyncStatus::State::Kind kind, const std::string& errorText) {
  using Kind = synckit::BrainSyncStatus::State::Kind;
  switch (kind) {
    case Kind::error:
      return "Sync error: " + errorText;
    case Kind::syncing:
      return "Syncing…";
    case Kind::idle:
      break;
  }
  return "Up to date";
}

struct Unit {
  std::int64_t seconds;
  const char* name;
};

// Largest first. Months and years are counted in fixed lengths: the text is a
// rough indication, and fixed lengths keep it independent of calendar and
// time zone.
constexpr std::int64_t day = 24 * 60 * 60;
constexpr std::array<Unit, 6> units{{{365 * day, "year"},
                                     {30 * day, "month"},
                                     {7 * day, "week"},
                                     {day, "day"},
                                     {60 * 60, "hour"},
                                     {60, "minute"}}};

}  // namespace

std::string statusLine(const AggregateState& state) {
  using Kind = synckit::BrainSyncStatus::State::Kind;
  switch (state.kind) {
    case AggregateState::Kind::error:
      return line(Kind::error, state.errorText);
    case AggregateState::Kind::syncing:
      return line(Kind::syncing, {});
    case AggregateState::Kind::idle:
      break;
  }
  return line(Kind::idle, {});
}

std::string statusLine(const synckit::BrainSyncStatus::State& state) {
  return line(state.kind(), state.errorText().value_or(std::string()));
}

std::string brainTitle(const synckit::BrainSyncStatus& status, synckit::Timestamp now) {
  using Kind = synckit::BrainSyncStatus::State::Kind;
  std::string title = status.name;
  title += separator;
  title += status.lastSyncAt ? relativeTime(*status.lastSyncAt, now) : "Not synced yet";
  if (status.state.kind() == Kind::syncing) {
    title += separator;
    title += "Syncing…";
  } else if (status.state.kind() == Kind::error) {
    title += separator;
    title += "Error";
  }
  if (status.pendingErrorCount >= 1) {
    title += separator;
    title += "⚠ " + std::to_string(status.pendingErrorCount);
  }
  return title;
}

std::string relativeTime(synckit::Timestamp then, synckit::Timestamp now) {
  const std::int64_t difference = then.millisecondsSinceEpoch() - now.millisecondsSinceEpoch();
  const bool future = difference > 0;
  const std::int64_t seconds = (future ? difference : -difference) / 1000;
  if (seconds < 1) return "now";

  std::int64_t count = seconds;
  std::string name = "second";
  for (const Unit& unit : units) {
    if (seconds >= unit.seconds) {
      count = seconds / unit.seconds;
      name = unit.name;
      break;
    }
  }
  if (name == "day" && count == 1) return future ? "tomorrow" : "yesterday";
  // Twelve 30-day months are still short of a year.
  if (name == "month" && count > 11) count = 11;

  std::string amount = std::to_string(count) + " " + name + (count == 1 ? "" : "s");
  return future ? "in " + amount : amount + " ago";
}

std::optional<std::string> progressLine(const std::optional<synckit::ProviderProgress>& progress) {
  if (!progress || progress->idle || progress->filesRemaining <= 0) return std::nullopt;
  const std::int64_t files = progress->filesRemaining;
  return "Downloading " + std::to_string(files) + (files == 1 ? " file (" : " files (") +
         sizeText(std::max<std::int64_t>(progress->bytesRemaining, 0)) + ") left";
}

std::string versionLine(const std::string& version, const std::string& build) {
  return "Halvark " + (version.empty() ? std::string("?") : version) + " (" +
         (build.empty() ? std::string("?") : build) + ")";
}

}  // namespace halvark::StatusText
