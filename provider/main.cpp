// halvark-provider: keeps the mirror folder in step with the shared store.
//
//   halvark-provider [--once] [--mirror PATH]
//
// Exit status: 0 when stopped (SIGTERM, SIGINT), when the application
// removed the domain, or after the update of --once; 1 when another
// provider runs for the container or the provider could not start (or the
// update of --once failed); 2 for a command line it does not understand.

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "provider/provider_service.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/logger.h"
#include "synckit/platform/app_identity.h"

namespace {

// Turns SIGTERM and SIGINT into a stop request: the signals are blocked in
// every thread (so they must be blocked before any thread starts) and read
// from a signalfd by a thread of their own.
class StopOnSignals {
 public:
  StopOnSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signalFd_ = ::signalfd(-1, &signals_, SFD_CLOEXEC);
    doneFd_ = ::eventfd(0, EFD_CLOEXEC);
    if (signalFd_ < 0 || doneFd_ < 0) return;
    watcher_ = std::jthread([this] {
      pollfd waits[2] = {{signalFd_, POLLIN, 0}, {doneFd_, POLLIN, 0}};
      for (;;) {
        if (::poll(waits, 2, -1) < 0) continue;
        if (waits[1].revents != 0) return;
        signalfd_siginfo info;
        if (waits[0].revents != 0 && ::read(signalFd_, &info, sizeof info) == sizeof info) {
          stop_.request_stop();
        }
      }
    });
  }

  ~StopOnSignals() {
    if (watcher_.joinable()) {
      const std::uint64_t one = 1;
      [[maybe_unused]] auto written = ::write(doneFd_, &one, sizeof one);
      watcher_.join();
    }
    if (signalFd_ >= 0) ::close(signalFd_);
    if (doneFd_ >= 0) ::close(doneFd_);
  }

  std::stop_token token() const { return stop_.get_token(); }

 private:
  sigset_t signals_;
  int signalFd_ = -1;
  int doneFd_ = -1;
  std::stop_source stop_;
  std::jthread watcher_;
};

}  // namespace

int main(int argc, char** argv) {
  using halvark::provider::ProviderService;
  ProviderService::Options options;
  try {
    options = ProviderService::parseArguments(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const ProviderService::UsageError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }

  StopOnSignals signals;
  synckit::CancellationScope scope(signals.token());
  // Started by the application: stop when it ends, even by SIGKILL, rather
  // than serve on without anyone to restart or stop this process.
  if (const char* parent = std::getenv("HALVARK_PROVIDER_PARENT")) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (std::to_string(::getppid()) != parent) return 0;  // it is gone already
  }
  try {
    ProviderService service(options);
    return service.run();
  } catch (const ProviderService::AlreadyRunning& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  } catch (const synckit::CancellationError&) {
    return 0;
  } catch (const std::exception& error) {
    synckit::Logger(std::string(synckit::AppIdentity::applicationIdentifier), "provider")
        .error("halvark-provider could not start: %s", error.what());
    std::fprintf(stderr, "halvark-provider: %s\n", error.what());
    return 1;
  }
}
