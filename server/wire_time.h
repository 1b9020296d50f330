#pragma once
// Times on the sync wire: milliseconds since the epoch, written as
// 2025-03-01T09:30:12.345Z (always UTC, always three fractional digits).

#include <cstdint>
#include <string>

namespace devserver {

// Current time on the system clock in milliseconds since the epoch.
std::int64_t systemMillis();

std::string formatWireTime(std::int64_t millis);

}  // namespace devserver
