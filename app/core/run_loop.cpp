#include "app/core/run_loop.h"

#include <utility>

namespace halvark {

void RunLoop::post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    // An empty task would read as the end of the queue in take().
    if (quit_ || !task) return;
    tasks_.push_back(std::move(task));
  }
  changed_.notify_one();
}

std::function<void()> RunLoop::take(std::optional<std::chrono::steady_clock::time_point> deadline) {
  std::unique_lock lock(mutex_);
  auto ready = [this] { return quit_ || !tasks_.empty(); };
  if (deadline) {
    changed_.wait_until(lock, *deadline, ready);
  } else {
    changed_.wait(lock, ready);
  }
  if (quit_ || tasks_.empty()) return {};
  std::function<void()> task = std::move(tasks_.front());
  tasks_.pop_front();
  return task;
}

void RunLoop::run() {
  while (std::function<void()> task = take(std::nullopt)) task();
}

void RunLoop::quit() {
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard lock(mutex_);
    quit_ = true;
    dropped.swap(tasks_);
  }
  changed_.notify_all();
  // The dropped tasks are destroyed here, outside the lock: what they capture
  // may post while going away.
}

std::size_t RunLoop::runFor(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::size_t ran = 0;
  while (std::function<void()> task = take(deadline)) {
    task();
    ++ran;
  }
  return ran;
}

bool RunLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // Checked first as well, so that a condition that already holds does not
  // wait out the timeout.
  if (done()) return true;
  while (std::function<void()> task = take(deadline)) {
    task();
    if (done()) return true;
  }
  return false;
}

}  // namespace halvark
