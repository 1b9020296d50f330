#pragma once

#include <functional>

namespace halvark {

// The application's main thread, where AppModel, AppState and AuthController
// live: work that finishes elsewhere (the scheduler's callbacks, a sign-in
// flow, the session consumer) hops back through post(). The tray supplies
// one on Qt's event loop; the daemon and the tests run a RunLoop.
class MainQueue {
 public:
  virtual ~MainQueue() = default;

  // Runs `task` on the main thread later, after the tasks posted before it.
  // Any thread. A task posted once the queue has shut down is dropped.
  virtual void post(std::function<void()> task) = 0;
};

}  // namespace halvark
