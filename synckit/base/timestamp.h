#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace synckit {

// A point in time with millisecond precision, on the system clock.
// Its one text form is "2025-03-01T09:30:12.345Z": always three fractional
// digits, always UTC.
//
// A timestamp always lies in the years 0000 to 9999 UTC, the instants that
// text form can write with its four-digit year, so that every timestamp
// prints as text that parses back to it.
class Timestamp {
 public:
  // 0000-01-01T00:00:00.000Z and 9999-12-31T23:59:59.999Z.
  static constexpr std::int64_t minMilliseconds = -62167219200000;
  static constexpr std::int64_t maxMilliseconds = 253402300799999;

  constexpr Timestamp() = default;

  // A count outside the range is clamped to its nearer end.
  static constexpr Timestamp fromMilliseconds(std::int64_t millisecondsSinceEpoch) {
    Timestamp t;
    t.ms_ = millisecondsSinceEpoch < minMilliseconds   ? minMilliseconds
            : millisecondsSinceEpoch > maxMilliseconds ? maxMilliseconds
                                                       : millisecondsSinceEpoch;
    return t;
  }
  static Timestamp now();

  // Accepts the internet date-time form with fractional seconds and a "Z" or
  // a +hh:mm / -hh:mm offset. Text without fractional seconds is refused.
  // Digits past the millisecond are dropped. Text whose instant falls outside
  // the years 0000 to 9999 once its offset is applied is refused.
  static std::optional<Timestamp> parse(std::string_view text);

  // The text form in a fixed buffer, not NUL-terminated.
  using Text = std::array<char, 24>;

  std::string toString() const;
  // toString() without allocating, for callers that need the text briefly.
  Text toText() const noexcept;
  constexpr std::int64_t millisecondsSinceEpoch() const noexcept { return ms_; }

  auto operator<=>(const Timestamp&) const = default;
  bool operator==(const Timestamp&) const = default;

 private:
  std::int64_t ms_ = 0;
};

}  // namespace synckit
