#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <stop_token>

#include "synckit/base/clock.h"

namespace synckit::testing {

// A clock that moves only when the test advances it. Waiters block until the
// fake time passes their deadline or their stop is requested; the test can
// wait until a given number of threads are waiting. Thread-safe.
class FakeClock final : public Clock {
 public:
  explicit FakeClock(Timestamp start = Timestamp::fromMilliseconds(1'700'000'000'000))
      : now_(start) {}

  Timestamp now() override {
    std::lock_guard lock(mutex_);
    return now_;
  }

  bool waitFor(std::chrono::nanoseconds duration, std::stop_token stop) override {
    std::unique_lock lock(mutex_);
    const auto deadline = now_.millisecondsSinceEpoch() +
                          std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
    ++waiters_;
    changed_.notify_all();
    const bool elapsed =
        changed_.wait(lock, stop, [&] { return now_.millisecondsSinceEpoch() >= deadline; });
    --waiters_;
    changed_.notify_all();
    return elapsed;
  }

  void advance(std::chrono::milliseconds by) {
    std::lock_guard lock(mutex_);
    now_ = Timestamp::fromMilliseconds(now_.millisecondsSinceEpoch() + by.count());
    changed_.notify_all();
  }

  std::size_t waiters() {
    std::lock_guard lock(mutex_);
    return waiters_;
  }

  // Blocks until at least `count` threads wait on this clock, or `timeout`
  // of real time passes; returns whether they do.
  bool awaitWaiters(std::size_t count,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return waiters_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable_any changed_;
  Timestamp now_;
  std::size_t waiters_ = 0;
};

}  // namespace synckit::testing
