#include "app/platform/provider_supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "synckit/base/error.h"
#include "synckit/platform/app_identity.h"

namespace halvark {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How often a child is looked at when the kernel offers no process
// descriptor to wait on.
constexpr milliseconds fallbackPollInterval{50};

// The status of a child that someone else reaped: an application that
// ignores SIGCHLD has the kernel collect its children.
constexpr int unknownStatus = -1;

void throwIfFailed(int code) {
  if (code != 0) throw synckit::PosixError(code);
}

class FileActions {
 public:
  FileActions() { throwIfFailed(::posix_spawn_file_actions_init(&actions_)); }
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

class Attributes {
 public:
  Attributes() { throwIfFailed(::posix_spawnattr_init(&attributes_)); }
  ~Attributes() { ::posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

// The child's wait status once it has ended; absent while it runs.
std::optional<int> reap(pid_t pid, int options) {
  for (;;) {
    int status = 0;
    pid_t result = ::waitpid(pid, &status, options);
    if (result == pid) return status;
    if (result == 0) return std::nullopt;
    if (errno != EINTR) return unknownStatus;
  }
}

std::string describe(int status) {
  if (status == unknownStatus) return "ended";
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    const char* name = ::sigabbrev_np(WTERMSIG(status));
    return "was killed by " +
           (name != nullptr ? "SIG" + std::string(name) : std::to_string(WTERMSIG(status)));
  }
  return "ended with wait status " + std::to_string(status);
}

// Waits on `fds` for at most `timeout` (a negative one: without limit). A
// failed poll counts as a short wait rather than a reason to give up
// supervising.
void pollFor(pollfd* fds, nfds_t count, milliseconds timeout) {
  int ms = timeout.count() < 0
               ? -1
               : static_cast<int>(std::min<milliseconds::rep>(timeout.count(), 1 << 30));
  if (::poll(fds, count, ms) < 0 && errno != EINTR) {
    std::this_thread::sleep_for(ms < 0 ? fallbackPollInterval
                                       : std::min(timeout, fallbackPollInterval));
  }
}

milliseconds remainingUntil(Clock::time_point deadline) {
  return std::chrono::ceil<milliseconds>(deadline - Clock::now());
}

}  // namespace

// A started process, waited on through its process descriptor when the
// kernel offers one. (The system call is made directly: the C library's
// declaration of pidfd_open lacks C linkage in some versions.)
struct ProviderSupervisor::Child {
  pid_t pid = -1;
  int pidfd = -1;

  Child(pid_t pid, int pidfd) : pid(pid), pidfd(pidfd) {}
  ~Child() {
    if (pidfd >= 0) ::close(pidfd);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
};

// The provider leaves with this process, even when it is killed and cannot
// stop it; a restarted application then starts a provider of its own.
std::vector<std::string> ProviderSupervisor::withParent(std::vector<std::string> environment) {
  const std::string key = std::string(parentVariable) + "=";
  std::erase_if(environment, [&](const std::string& entry) { return entry.starts_with(key); });
  environment.push_back(key + std::to_string(::getpid()));
  return environment;
}

ProviderSupervisor::ProviderSupervisor(std::filesystem::path executable,
                                       std::vector<std::string> environment,
                                       std::function<bool()> stillWanted, Timing timing)
    : executable_(std::move(executable)),
      environment_(withParent(std::move(environment))),
      stillWanted_(std::move(stillWanted)),
      timing_(timing),
      logger_(std::string(synckit::AppIdentity::applicationIdentifier), "domain") {
  for (const std::string& entry : environment_) {
    environmentPointers_.push_back(const_cast<char*>(entry.c_str()));
  }
  environmentPointers_.push_back(nullptr);
  wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_ < 0) throw synckit::PosixError(errno);
  thread_ = std::jthread([this](std::stop_token stop) { run(std::move(stop)); });
}

ProviderSupervisor::~ProviderSupervisor() {
  stop();
  ::close(wake_);
}

void ProviderSupervisor::stop() {
  thread_.request_stop();
  if (thread_.joinable()) thread_.join();
}

void ProviderSupervisor::run(std::stop_token stop) {
  std::stop_callback wakeOnStop(stop, [this] {
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
  });
  const std::string name = executable_.filename().string();
  milliseconds delay = timing_.firstRestartDelay;
  while (!stop.stop_requested()) {
    const auto started = Clock::now();
    try {
      Child child = spawn();
      logger_.info("Started %s (pid %d)", name.c_str(), child.pid);
      std::optional<int> status = waitForExit(child, stop);
      if (!status) {
        terminate(child);
        break;
      }
      if (*status == 0 && !wanted()) {
        logger_.info("%s (pid %d) left: its domain is gone", name.c_str(), child.pid);
        break;
      }
      logger_.error("%s (pid %d) %s", name.c_str(), child.pid, describe(*status).c_str());
    } catch (const std::exception& error) {
      logger_.error("Could not start %s: %s", executable_.c_str(), error.what());
    }
    if (Clock::now() - started >= timing_.stableUptime) delay = timing_.firstRestartDelay;
    logger_.info("Restarting %s in %lld ms", name.c_str(), static_cast<long long>(delay.count()));
    if (!pause(delay, stop)) break;
    delay = std::min(delay * 2, timing_.longestRestartDelay);
  }
  finished_ = true;
}

ProviderSupervisor::Child ProviderSupervisor::spawn() const {
  FileActions actions;
  throwIfFailed(
      ::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0));
  // Descriptors a library opened without close-on-exec must not outlive
  // the application in its provider.
  throwIfFailed(::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1));

  Attributes attributes;
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  throwIfFailed(::posix_spawnattr_setsigmask(attributes.get(), &none));
  throwIfFailed(::posix_spawnattr_setsigdefault(attributes.get(), &all));
  throwIfFailed(::posix_spawnattr_setpgroup(attributes.get(), 0));
  throwIfFailed(::posix_spawnattr_setflags(
      attributes.get(), POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP));

  std::string program = executable_.string();
  char* arguments[] = {program.data(), nullptr};
  pid_t pid = -1;
  throwIfFailed(::posix_spawn(&pid, program.c_str(), actions.get(), attributes.get(), arguments,
                              environmentPointers_.data()));
  // The child stays unreaped until this thread waits for it, so its pid
  // cannot name another process in between.
  return Child(pid, static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

std::optional<int> ProviderSupervisor::waitForExit(const Child& child,
                                                   const std::stop_token& stop) const {
  const bool hasPidfd = child.pidfd >= 0;
  for (;;) {
    pollfd fds[] = {{wake_, POLLIN, 0}, {child.pidfd, POLLIN, 0}};
    pollFor(fds, hasPidfd ? 2 : 1, hasPidfd ? milliseconds(-1) : fallbackPollInterval);
    if (stop.stop_requested()) return std::nullopt;
    if (auto status = reap(child.pid, WNOHANG)) return status;
  }
}

void ProviderSupervisor::terminate(const Child& child) const {
  const std::string name = executable_.filename().string();
  ::kill(child.pid, SIGTERM);
  const auto deadline = Clock::now() + timing_.terminationGrace;
  for (;;) {
    if (auto status = reap(child.pid, WNOHANG)) {
      logger_.info("Stopped %s (pid %d): it %s", name.c_str(), child.pid,
                   describe(*status).c_str());
      return;
    }
    milliseconds left = remainingUntil(deadline);
    if (left.count() <= 0) break;
    pollfd fd{child.pidfd, POLLIN, 0};
    if (child.pidfd >= 0) {
      pollFor(&fd, 1, left);
    } else {
      pollFor(nullptr, 0, std::min(left, fallbackPollInterval));
    }
  }
  logger_.error("%s (pid %d) did not stop within %lld ms; killing it", name.c_str(), child.pid,
                static_cast<long long>(timing_.terminationGrace.count()));
  ::kill(child.pid, SIGKILL);
  reap(child.pid, 0);
}

bool ProviderSupervisor::pause(milliseconds delay, const std::stop_token& stop) const {
  const auto deadline = Clock::now() + delay;
  for (milliseconds left = delay; left.count() > 0 && !stop.stop_requested();
       left = remainingUntil(deadline)) {
    pollfd fd{wake_, POLLIN, 0};
    pollFor(&fd, 1, left);
  }
  return !stop.stop_requested();
}

bool ProviderSupervisor::wanted() const {
  try {
    return stillWanted_();
  } catch (const std::exception& error) {
    // Better a provider restarted in vain than one missing.
    logger_.error("Could not tell whether the file provider is still wanted: %s", error.what());
    return true;
  }
}

}  // namespace halvark
