#include "app/cli/daemon.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <thread>

#include "app/cli/signal_descriptor.h"
#include "app/core/run_loop.h"
#include "app/platform/app_instance.h"
#include "app/platform/systemd_notify.h"
#include "synckit/base/logger.h"
#include "synckit/platform/app_identity.h"

namespace halvark {
namespace {

// Quits `loop` when one of the signals arrives, from a thread of its own.
class QuitOnSignal {
 public:
  QuitOnSignal(SignalDescriptor& signals, RunLoop& loop)
      : done_(::eventfd(0, EFD_CLOEXEC)), thread_([this, &signals, &loop] {
          pollfd watched[2] = {{done_, POLLIN, 0}, {signals.fd(), POLLIN, 0}};
          for (;;) {
            if (::poll(watched, 2, -1) < 0) continue;
            if (watched[0].revents != 0) return;
            if (signals.take() != 0) loop.quit();
          }
        }) {}
  ~QuitOnSignal() {
    ::eventfd_write(done_, 1);
    thread_.join();
    ::close(done_);
  }
  QuitOnSignal(const QuitOnSignal&) = delete;
  QuitOnSignal& operator=(const QuitOnSignal&) = delete;

 private:
  int done_;
  std::thread thread_;
};

}  // namespace

int runDaemon(std::ostream& err) {
  const synckit::Logger logger(std::string(synckit::AppIdentity::applicationIdentifier), "daemon");
  // Before any thread starts, so that none of them takes the signals.
  SignalDescriptor signals({SIGTERM, SIGINT});
  ::signal(SIGPIPE, SIG_IGN);
  RunLoop loop;
  QuitOnSignal quitOnSignal(signals, loop);
  try {
    AppInstance instance(loop, {.quit = [&loop] { loop.quit(); }});
    logger.info("Halvark is running");
    SystemdNotify::ready();
    loop.run();
    SystemdNotify::stopping();
    logger.info("Halvark is stopping");
  } catch (const AlreadyRunningError& error) {
    err << error.what() << '\n';
    return 1;
  } catch (const std::exception& error) {
    logger.error("Halvark could not start: %s", error.what());
    err << "Halvark could not start: " << error.what() << '\n';
    return 1;
  }
  return 0;
}

}  // namespace halvark
