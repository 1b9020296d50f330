#include "server/wire_time.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace devserver {

std::int64_t systemMillis() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string formatWireTime(std::int64_t millis) {
  // Floor division keeps times before 1970 correct (the fraction stays positive).
  std::int64_t seconds = millis / 1000;
  std::int64_t fraction = millis % 1000;
  if (fraction < 0) {
    fraction += 1000;
    seconds -= 1;
  }
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                static_cast<int>(fraction));
  return text;
}

}  // namespace devserver
