#pragma once

#include <chrono>
#include <stop_token>

namespace synckit {

// Ambient cancellation. The code that starts a piece of long-running work
// installs that work's stop token for the current thread with a
// CancellationScope; everything below it checks the token through the free
// functions here without having to pass it along.
//
//   std::jthread worker([](std::stop_token stop) {
//     synckit::CancellationScope scope(stop);
//     ...  // checkCancellation(), sleepFor() and HTTP transfers honour `stop`
//   });
class CancellationScope {
 public:
  explicit CancellationScope(std::stop_token token);
  ~CancellationScope();
  CancellationScope(const CancellationScope&) = delete;
  CancellationScope& operator=(const CancellationScope&) = delete;

 private:
  std::stop_token previous_;
};

// The current thread's stop token (one that can never stop when no scope is installed).
std::stop_token currentStopToken();

// True when the current thread's work was asked to stop.
bool isCancelled();

// Throws CancellationError when the current thread's work was asked to stop.
void checkCancellation();

// Sleeps for `duration`, waking early and throwing CancellationError when a
// stop is requested.
void sleepFor(std::chrono::nanoseconds duration);

}  // namespace synckit
