#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "synckit/base/logger.h"

namespace halvark {

// Runs the file provider's process and keeps it running. A process that
// ends is started again after a pause that doubles from firstRestartDelay
// up to longestRestartDelay, and starts over at firstRestartDelay once a
// process has lived for stableUptime. A process that exits with status 0
// while `stillWanted` says no ends the supervision: the provider leaves by
// itself once its domain is gone. stop() ends the process: SIGTERM, and
// SIGKILL when it is still there after terminationGrace.
//
// The process gets standard input from /dev/null, the supervisor's standard
// output and error, no other descriptor, no blocked or ignored signal, and
// a process group of its own, so that a Ctrl-C meant for the application
// reaches only the application, which then stops its provider in order.
//
// Supervision runs on the supervisor's own thread from construction on.
// stop() and the destructor are for the owner's thread; supervising() may be
// called from any thread.
class ProviderSupervisor {
 public:
  // Set in the provider's environment to this process's id: a provider that
  // finds it asks to be stopped (SIGTERM) when its parent ends.
  static constexpr std::string_view parentVariable = "HALVARK_PROVIDER_PARENT";

  struct Timing {
    std::chrono::milliseconds firstRestartDelay{1000};
    std::chrono::milliseconds longestRestartDelay{30000};
    std::chrono::milliseconds stableUptime{60000};
    std::chrono::milliseconds terminationGrace{5000};
  };

  // `environment` holds "NAME=value" entries, the child's whole environment.
  // `stillWanted` is called on the supervisor's thread.
  ProviderSupervisor(std::filesystem::path executable, std::vector<std::string> environment,
                     std::function<bool()> stillWanted, Timing timing);
  ~ProviderSupervisor();  // stop()
  ProviderSupervisor(const ProviderSupervisor&) = delete;
  ProviderSupervisor& operator=(const ProviderSupervisor&) = delete;

  // Ends supervision and the process, and waits for both. Idempotent.
  void stop();

  // False once supervision ended, by stop() or because the provider left.
  bool supervising() const noexcept { return !finished_; }

 private:
  static std::vector<std::string> withParent(std::vector<std::string> environment);
  struct Child;

  void run(std::stop_token stop);
  Child spawn() const;
  // The child's wait status once it ended; absent when a stop came first.
  std::optional<int> waitForExit(const Child& child, const std::stop_token& stop) const;
  void terminate(const Child& child) const;
  // False when a stop came before `delay` passed.
  bool pause(std::chrono::milliseconds delay, const std::stop_token& stop) const;
  bool wanted() const;

  const std::filesystem::path executable_;
  const std::vector<std::string> environment_;
  std::vector<char*> environmentPointers_;
  const std::function<bool()> stillWanted_;
  const Timing timing_;
  const synckit::Logger logger_;
  // An eventfd that becomes readable, for good, when a stop is requested.
  int wake_ = -1;
  std::atomic<bool> finished_{false};
  std::jthread thread_;  // last: starts once everything above is set
};

}  // namespace halvark
