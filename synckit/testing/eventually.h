#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace synckit::testing {

// Checks `condition` every `step` until it holds or `timeout` of real time
// has passed; returns whether it held. For tests that wait on other threads
// or processes without a signal to wait on.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10),
                       std::chrono::milliseconds step = std::chrono::milliseconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(step);
  }
  return true;
}

}  // namespace synckit::testing
