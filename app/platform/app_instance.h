#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/core/app_model.h"
#include "app/core/main_queue.h"
#include "synckit/base/error.h"
#include "synckit/platform/provider_progress.h"

namespace halvark {

class BrowserWebAuthenticator;
class ControlServer;
class LinuxFileProviderManager;

// Another instance holds the container: "Halvark is already running."
class AlreadyRunningError : public synckit::Error {
 public:
  AlreadyRunningError() : synckit::Error("Halvark is already running.") {}
};

// One running Halvark (the tray application or the headless daemon): the
// single-instance lock of the user and container, the file-provider manager,
// the browser sign-in, the application model and the control socket that the
// command-line verbs talk to. The tray and the daemon differ only in the
// MainQueue they supply and in what they draw.
//
// Lives on the main thread. Construction takes the lock (a stale lock or
// socket left by a killed instance is taken over) and starts serving the
// control socket; destruction stops serving, then the model, then the
// provider.
class AppInstance {
 public:
  struct Options {
    // Called on the main thread when a client asks the instance to quit.
    std::function<void()> quit;
  };

  // Throws AlreadyRunningError when another instance runs, and
  // synckit::Error when the control socket cannot be served.
  AppInstance(MainQueue& mainQueue, Options options);
  ~AppInstance();
  AppInstance(const AppInstance&) = delete;
  AppInstance& operator=(const AppInstance&) = delete;

  AppModel& model() noexcept;
  BrowserWebAuthenticator& authenticator() noexcept;

  // What the provider still has to download; absent when it is idle or has
  // published nothing. Any thread.
  std::optional<synckit::ProviderProgress> progress() const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace halvark
