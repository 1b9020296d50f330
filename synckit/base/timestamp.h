#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace synckit {

// A point in time with millisecond precision, on the system clock.
// Its one text form is "2025-03-01T09:30:12.345Z": always three fractional
// digits, always UTC.
class Timestamp {
 public:
  constexpr Timestamp() = default;

  static constexpr Timestamp fromMilliseconds(std::int64_t millisecondsSinceEpoch) {
    Timestamp t;
    t.ms_ = millisecondsSinceEpoch;
    return t;
  }
  static Timestamp now();

  // Accepts the internet date-time form with fractional seconds and a "Z" or
  // a +hh:mm / -hh:mm offset. Text without fractional seconds is refused.
  // Digits past the millisecond are dropped.
  static std::optional<Timestamp> parse(std::string_view text);

  std::string toString() const;
  constexpr std::int64_t millisecondsSinceEpoch() const noexcept { return ms_; }

  auto operator<=>(const Timestamp&) const = default;
  bool operator==(const Timestamp&) const = default;

 private:
  std::int64_t ms_ = 0;
};

}  // namespace synckit
