#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>

#include "app/core/main_queue.h"

namespace halvark {

// A MainQueue served by whichever thread calls run(): the headless daemon's
// main thread, and the tests' thread through runFor()/runUntil().
class RunLoop final : public MainQueue {
 public:
  RunLoop() = default;
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  void post(std::function<void()> task) override;

  // Runs tasks in order until quit(); returns at once when quit() came first.
  void run();
  // Makes run() return after the task it is running; tasks posted later are
  // dropped. Any thread, also from inside a task.
  void quit();

  // Runs the tasks that arrive within `timeout`; for tests. Returns how many
  // ran.
  std::size_t runFor(std::chrono::milliseconds timeout);
  // Runs tasks until `done()` (checked after each task) or `timeout`; true
  // when `done()` held. For tests.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

 private:
  // The next task, waiting for one until `deadline` (or for good); empty
  // after quit() or at the deadline.
  std::function<void()> take(std::optional<std::chrono::steady_clock::time_point> deadline);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> tasks_;
  bool quit_ = false;
};

}  // namespace halvark
