#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "synckit/base/timestamp.h"

namespace synckit {

// Names the saved copy of a local version that lost a conflict:
// "dir/stem (conflicted copy Device 2026-11-16).ext", numbered " 2", " 3", …
// inside the parenthesis until the name is free. Pure; any thread; never
// throws.
namespace ConflictNamer {

// The zone a copy's date stamp is written in. The C++ library here has no
// named-zone database, so a zone is either the computer's own (resolved by the
// C library from TZ or /etc/localtime, daylight saving included) or a fixed
// offset from UTC, which is what makes the stamp testable.
class TimeZone {
 public:
  static TimeZone current() { return TimeZone(std::nullopt); }
  static TimeZone utc() { return TimeZone(std::chrono::seconds(0)); }
  // `offset` east of UTC: +1 h for Central European winter time.
  static TimeZone fixed(std::chrono::seconds offset) { return TimeZone(offset); }

  // The zone's offset from UTC at `date`.
  std::chrono::seconds offsetAt(Timestamp date) const;

  bool operator==(const TimeZone&) const = default;

 private:
  explicit TimeZone(std::optional<std::chrono::seconds> fixed) : fixed_(fixed) {}
  std::optional<std::chrono::seconds> fixed_;
};

// "yyyy-MM-dd" of `date` in `timeZone`, Gregorian.
std::string dateStamp(Timestamp date, const TimeZone& timeZone);

// The first candidate for `path` that is not in `existingPaths`. The
// extension is the name's last "." and what follows, unless that "." opens
// or ends the name.
std::string conflictCopyPath(std::string_view path, std::string_view deviceName, Timestamp date,
                             const std::unordered_set<std::string>& existingPaths,
                             const TimeZone& timeZone);

}  // namespace ConflictNamer
}  // namespace synckit
