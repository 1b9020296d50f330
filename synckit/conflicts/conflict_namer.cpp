#include "synckit/conflicts/conflict_namer.h"

#include <time.h>

#include <cstdio>

namespace synckit::ConflictNamer {
namespace {

// Whole seconds, rounded down, so that an instant just before midnight UTC
// stays on its own day.
std::int64_t floorSeconds(Timestamp date) {
  std::int64_t ms = date.millisecondsSinceEpoch();
  return ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000);
}

}  // namespace

std::chrono::seconds TimeZone::offsetAt(Timestamp date) const {
  if (fixed_) return *fixed_;
  time_t seconds = static_cast<time_t>(floorSeconds(date));
  struct tm local {};
  if (::localtime_r(&seconds, &local) == nullptr) return std::chrono::seconds(0);
  return std::chrono::seconds(local.tm_gmtoff);
}

std::string dateStamp(Timestamp date, const TimeZone& timeZone) {
  using namespace std::chrono;
  const sys_seconds local{seconds(floorSeconds(date)) + timeZone.offsetAt(date)};
  const year_month_day day{floor<days>(local)};
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(day.year()),
                static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
  return text;
}

std::string conflictCopyPath(std::string_view path, std::string_view deviceName, Timestamp date,
                             const std::unordered_set<std::string>& existingPaths,
                             const TimeZone& timeZone) {
  const std::string stamp = dateStamp(date, timeZone);

  const std::size_t slash = path.rfind('/');
  const std::string_view directory =
      slash == std::string_view::npos ? std::string_view() : path.substr(0, slash + 1);
  const std::string_view name = path.substr(directory.size());

  std::string_view stem = name;
  std::string_view extension;
  const std::size_t dot = name.rfind('.');
  if (dot != std::string_view::npos && dot != 0 && dot != name.size() - 1) {
    stem = name.substr(0, dot);
    extension = name.substr(dot);
  }

  std::string prefix;
  prefix.append(directory).append(stem).append(" (conflicted copy ").append(deviceName);
  prefix.append(" ").append(stamp);
  for (std::size_t n = 1;; ++n) {
    std::string candidate = prefix;
    if (n > 1) candidate.append(" ").append(std::to_string(n));
    candidate.append(")").append(extension);
    if (!existingPaths.contains(candidate)) return candidate;
  }
}

}  // namespace synckit::ConflictNamer
