#include "synckit/base/cancellation.h"

#include <condition_variable>
#include <mutex>

#include "synckit/base/error.h"

namespace synckit {
namespace {

thread_local std::stop_token currentToken;

}  // namespace

CancellationScope::CancellationScope(std::stop_token token) : previous_(std::move(currentToken)) {
  currentToken = std::move(token);
}

CancellationScope::~CancellationScope() { currentToken = std::move(previous_); }

std::stop_token currentStopToken() { return currentToken; }

bool isCancelled() { return currentToken.stop_requested(); }

void checkCancellation() {
  if (isCancelled()) throw CancellationError();
}

void sleepFor(std::chrono::nanoseconds duration) {
  checkCancellation();
  std::mutex mutex;
  std::condition_variable_any wakeUp;
  std::unique_lock lock(mutex);
  wakeUp.wait_for(lock, currentToken, duration, [] { return false; });
  checkCancellation();
}

}  // namespace synckit
