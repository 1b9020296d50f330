#pragma once

#include <chrono>
#include <stop_token>

#include "synckit/base/timestamp.h"

namespace synckit {

// The time of day and waiting, behind an interface so that tests can run
// long waits (the scheduler's 30-second sleep) on a clock they advance.
// Implementations are safe to use from any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  virtual Timestamp now() = 0;

  // Waits for `duration` or until `stop` is requested, whichever comes
  // first; returns false when the wait was ended by `stop`. Never throws.
  virtual bool waitFor(std::chrono::nanoseconds duration, std::stop_token stop) = 0;

  // The process's real clock.
  static Clock& system();
};

}  // namespace synckit
