#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "app/core/app_model.h"
#include "app/core/main_queue.h"
#include "app/platform/browser_web_authenticator.h"
#include "app/platform/control_server.h"
#include "synckit/base/uuid.h"
#include "synckit/engine/brain_sync_status.h"
#include "synckit/platform/provider_progress.h"

namespace halvark {

// What the command-line verbs ask of the running instance, carried out on
// it: status, sign-in (with "noBrowser"), cancel-sign-in, open-url ("url"),
// sync-now, resync ("brain"), inbox ("brain", absent for none), sign-out and
// quit. The ControlServer's handler.
//
// Everything that reads or changes the application state is done on the
// main thread through the main queue, and the connection's thread waits for
// it: at most `mainThreadTimeout`, except for a sign-in, which lasts as long
// as the user takes. handle() is called on the connection threads; the
// instance's parts must outlive the commands.
class ControlCommands {
 public:
  struct Instance {
    MainQueue& mainQueue;
    AppModel& model;
    BrowserWebAuthenticator& authenticator;
    // What the provider still has to download. Any thread.
    std::function<std::optional<synckit::ProviderProgress>()> progress;
    // Ends the instance; on the main thread.
    std::function<void()> quit;
  };

  static constexpr std::chrono::seconds mainThreadTimeout{30};

  // On the main thread.
  explicit ControlCommands(Instance instance);

  nlohmann::json handle(const nlohmann::json& request,
                        const std::shared_ptr<ControlServer::Channel>& channel,
                        std::stop_token stop);

  // The brain that `reference` names among `brains`: its id (in either
  // case) or its name. Throws synckit::Error "No brain named “{reference}”."
  // and, for a name that several brains share, one that asks for the id.
  // Pure.
  static synckit::Uuid resolveBrain(const std::vector<synckit::BrainSyncStatus>& brains,
                                    const std::string& reference);

 private:
  nlohmann::json status(const std::stop_token& stop);
  nlohmann::json signIn(bool noBrowser, const std::shared_ptr<ControlServer::Channel>& channel,
                        const std::stop_token& stop);
  nlohmann::json signOut(const std::stop_token& stop);
  nlohmann::json quit(const std::shared_ptr<ControlServer::Channel>& channel);

  Instance instance_;
  synckit::MetadataStore* store_;
};

}  // namespace halvark
