#include "synckit/base/timestamp.h"

#include <chrono>

namespace synckit {
namespace {

using std::chrono::days;
using std::chrono::sys_days;

bool readDigits(std::string_view text, std::size_t& pos, std::size_t count, int& value) {
  if (pos + count > text.size()) return false;
  value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    char c = text[pos + i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  pos += count;
  return true;
}

bool expect(std::string_view text, std::size_t& pos, char a, char b = '\0') {
  if (pos >= text.size()) return false;
  char c = text[pos];
  if (c != a && (b == '\0' || c != b)) return false;
  ++pos;
  return true;
}

// Floor division so that times before 1970 format correctly.
std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

// Writes `value` as exactly `width` decimal digits ending just before `end`.
void putDigits(char* end, unsigned value, int width) noexcept {
  for (int i = 0; i < width; ++i) {
    *--end = static_cast<char>('0' + value % 10);
    value /= 10;
  }
}

}  // namespace

Timestamp Timestamp::now() {
  auto now = std::chrono::system_clock::now();
  return fromMilliseconds(
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count());
}

std::optional<Timestamp> Timestamp::parse(std::string_view text) {
  std::size_t pos = 0;
  int year, month, day, hour, minute, second;
  if (!readDigits(text, pos, 4, year) || !expect(text, pos, '-') ||
      !readDigits(text, pos, 2, month) || !expect(text, pos, '-') ||
      !readDigits(text, pos, 2, day) || !expect(text, pos, 'T', 't') ||
      !readDigits(text, pos, 2, hour) || !expect(text, pos, ':') ||
      !readDigits(text, pos, 2, minute) || !expect(text, pos, ':') ||
      !readDigits(text, pos, 2, second)) {
    return std::nullopt;
  }
  if (!expect(text, pos, '.')) return std::nullopt;  // fractional seconds are required
  int millis = 0;
  std::size_t fractionDigits = 0;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    if (fractionDigits < 3) millis = millis * 10 + (text[pos] - '0');
    ++fractionDigits;
    ++pos;
  }
  if (fractionDigits == 0) return std::nullopt;
  for (std::size_t i = fractionDigits; i < 3; ++i) millis *= 10;

  int offsetMinutes = 0;
  if (pos < text.size() && (text[pos] == 'Z' || text[pos] == 'z')) {
    ++pos;
  } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    int sign = text[pos] == '-' ? -1 : 1;
    ++pos;
    int offHour, offMinute;
    if (!readDigits(text, pos, 2, offHour) || !expect(text, pos, ':') ||
        !readDigits(text, pos, 2, offMinute) || offHour > 23 || offMinute > 59) {
      return std::nullopt;
    }
    offsetMinutes = sign * (offHour * 60 + offMinute);
  } else {
    return std::nullopt;
  }
  if (pos != text.size()) return std::nullopt;

  std::chrono::year_month_day date{std::chrono::year(year),
                                   std::chrono::month(static_cast<unsigned>(month)),
                                   std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;

  std::int64_t dayCount = sys_days(date).time_since_epoch().count();
  std::int64_t secondsOfDay = hour * 3600 + minute * 60 + second - offsetMinutes * 60;
  std::int64_t milliseconds = (dayCount * 86400 + secondsOfDay) * 1000 + millis;
  if (milliseconds < minMilliseconds || milliseconds > maxMilliseconds) return std::nullopt;
  return fromMilliseconds(milliseconds);
}

Timestamp::Text Timestamp::toText() const noexcept {
  // Formatted by hand: the store writes one of these per row it stores, and
  // snprintf cost more than the rest of the row's preparation.
  std::int64_t totalSeconds = floorDiv(ms_, 1000);
  auto millis = static_cast<unsigned>(ms_ - totalSeconds * 1000);
  std::int64_t dayCount = floorDiv(totalSeconds, 86400);
  auto secondsOfDay = static_cast<unsigned>(totalSeconds - dayCount * 86400);
  std::chrono::year_month_day date{sys_days(days(dayCount))};
  Text text{'0', '0', '0', '0', '-', '0', '0', '-', '0', '0', 'T', '0',
            '0', ':', '0', '0', ':', '0', '0', '.', '0', '0', '0', 'Z'};
  char* out = text.data();
  putDigits(out + 4, static_cast<unsigned>(static_cast<int>(date.year())), 4);
  putDigits(out + 7, static_cast<unsigned>(date.month()), 2);
  putDigits(out + 10, static_cast<unsigned>(date.day()), 2);
  putDigits(out + 13, secondsOfDay / 3600, 2);
  putDigits(out + 16, secondsOfDay / 60 % 60, 2);
  putDigits(out + 19, secondsOfDay % 60, 2);
  putDigits(out + 23, millis, 3);
  return text;
}

std::string Timestamp::toString() const {
  const Text text = toText();
  return std::string(text.data(), text.size());
}

}  // namespace synckit
