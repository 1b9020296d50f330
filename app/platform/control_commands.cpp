#include "app/platform/control_commands.h"

#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>

#include "app/platform/control_protocol.h"
#include "synckit/base/error.h"
#include "synckit/base/logger.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/store/brain_folder_names.h"

namespace halvark {
namespace {

using nlohmann::json;

// How long a sign-out may take: the keychain and the network are involved.
constexpr std::chrono::seconds signOutTimeout{60};

// An answer that the main thread hands to a connection thread waiting for
// it. The first one counts. Failures travel as their answer, never as an
// exception object: its reference count lives in the uninstrumented C++
// runtime, where ThreadSanitizer cannot see it hand the object over.
class Handoff {
 public:
  void deliver(json value) {
    {
      std::lock_guard lock(mutex_);
      if (value_) return;
      value_ = std::move(value);
    }
    arrived_.notify_all();
  }

  // Throws CancellationError when `stop` comes first, and an error when
  // `limit` passes first.
  json await(const std::stop_token& stop, std::optional<std::chrono::seconds> limit) {
    std::unique_lock lock(mutex_);
    const auto arrived = [this] { return value_.has_value(); };
    const bool done =
        limit ? arrived_.wait_for(lock, stop, *limit, arrived) : arrived_.wait(lock, stop, arrived);
    if (!done) {
      if (stop.stop_requested()) throw synckit::CancellationError();
      throw synckit::Error("Halvark did not answer in time.");
    }
    return *value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable_any arrived_;
  std::optional<json> value_;
};

// Runs `work` on the main thread and waits for its answer; what it throws
// becomes a failure with its text.
template <class Work>
json onMainThread(MainQueue& queue, Work work, const std::stop_token& stop,
                  std::optional<std::chrono::seconds> limit = ControlCommands::mainThreadTimeout) {
  auto handoff = std::make_shared<Handoff>();
  queue.post([handoff, work = std::move(work)]() mutable {
    try {
      handoff->deliver(work());
    } catch (const std::exception& error) {
      handoff->deliver(ControlProtocol::failure(error.what()));
    }
  });
  return handoff->await(stop, limit);
}

std::string quoted(const std::string& text) { return "\u201c" + text + "\u201d"; }

std::string textField(const json& request, const char* key) {
  const auto found = request.find(key);
  if (found == request.end() || !found->is_string())
    throw synckit::Error(std::string("The request has no \u201c") + key + "\u201d.");
  return found->get<std::string>();
}

// What a finished sign-in answers.
json signInOutcome(const AppState& state) {
  if (auto member = state.session().memberLabel())
    return ControlProtocol::success({{"member", *member}});
  return ControlProtocol::failure(state.errorMessage().value_or("The sign-in was cancelled."));
}

// What the state says about a request in progress: its answer once done.
using Outcome = std::function<std::optional<json>(const AppState&)>;

// Runs `act` on the main thread, then waits until `outcome` answers: right
// after `act`, and after each change of the state, in a task of its own so
// that everything the change's task sets is in place (a failed sign-in sets
// the session, then the message).
json actAndAwait(MainQueue& queue, AppModel& model, std::function<void(AppModel&)> act,
                 Outcome outcome, const std::stop_token& stop,
                 std::optional<std::chrono::seconds> limit) {
  struct Watch {
    std::shared_ptr<Handoff> answer = std::make_shared<Handoff>();
    std::optional<AppState::ObserverId> observer;
    Outcome outcome;

    void check(AppState& state) {
      auto answered = outcome(state);
      if (!answered) return;
      if (observer) state.unobserve(*observer);
      observer.reset();
      answer->deliver(std::move(*answered));
    }
  };
  auto watch = std::make_shared<Watch>();
  watch->outcome = std::move(outcome);
  // What `act` changes right away is seen by the first check; what changes
  // later, by the observer: both on the main thread, nothing in between.
  const json failed = onMainThread(
      queue,
      [&queue, &model, watch, act = std::move(act)] {
        AppState& state = model.appState();
        act(model);
        watch->observer = state.observe([&queue, &state, watch](AppState::Field) {
          queue.post([&state, watch] { watch->check(state); });
        });
        watch->check(state);
        return json();
      },
      stop);
  if (!failed.is_null()) return failed;
  return watch->answer->await(stop, limit);
}

}  // namespace

ControlCommands::ControlCommands(Instance instance)
    : instance_(std::move(instance)), store_(instance_.model.store()) {}

json ControlCommands::handle(const json& request,
                             const std::shared_ptr<ControlServer::Channel>& channel,
                             std::stop_token stop) {
  const std::string command = request.at("command").get<std::string>();
  AppModel& model = instance_.model;
  if (command == "status") return status(stop);
  if (command == "sign-in") {
    const auto noBrowser = request.find("noBrowser");
    return signIn(noBrowser != request.end() && noBrowser->is_boolean() && noBrowser->get<bool>(),
                  channel, stop);
  }
  if (command == "cancel-sign-in") {
    return onMainThread(
        instance_.mainQueue,
        [&model] {
          model.authController().cancelSignIn();
          return ControlProtocol::success();
        },
        stop);
  }
  if (command == "open-url") {
    if (!instance_.authenticator.deliverCallback(textField(request, "url")))
      return ControlProtocol::failure("No sign-in is waiting for this response.");
    return ControlProtocol::success();
  }
  if (command == "sync-now") {
    return onMainThread(
        instance_.mainQueue,
        [&model] {
          model.syncNow();
          return ControlProtocol::success();
        },
        stop);
  }
  if (command == "resync") {
    return onMainThread(
        instance_.mainQueue,
        [&model, brain = textField(request, "brain")] {
          model.resync(resolveBrain(model.appState().brainStatuses(), brain));
          return ControlProtocol::success();
        },
        stop);
  }
  if (command == "inbox") {
    const auto brain = request.find("brain");
    std::optional<std::string> reference;
    if (brain != request.end() && !brain->is_null()) reference = textField(request, "brain");
    return onMainThread(
        instance_.mainQueue,
        [&model, reference] {
          std::optional<synckit::Uuid> id;
          if (reference) id = resolveBrain(model.appState().brainStatuses(), *reference);
          model.setInboxBrain(id);
          return ControlProtocol::success();
        },
        stop);
  }
  if (command == "sign-out") return signOut(stop);
  if (command == "quit") return quit(channel);
  return ControlProtocol::failure("Halvark has no command " + quoted(command) + ".");
}

synckit::Uuid ControlCommands::resolveBrain(const std::vector<synckit::BrainSyncStatus>& brains,
                                            const std::string& reference) {
  if (const auto id = synckit::Uuid::parse(reference)) {
    for (const auto& brain : brains) {
      if (brain.brainId == *id) return *id;
    }
  }
  std::optional<synckit::Uuid> named;
  for (const auto& brain : brains) {
    if (brain.name != reference) continue;
    if (named) {
      throw synckit::Error("More than one brain is named " + quoted(reference) +
                           "; give its id instead.");
    }
    named = brain.brainId;
  }
  if (!named) throw synckit::Error("No brain named " + quoted(reference) + ".");
  return *named;
}

json ControlCommands::status(const std::stop_token& stop) {
  // The store and the mirror folder are read here rather than on the main
  // thread, which a long transaction of the scheduler must not hold up.
  std::map<synckit::Uuid, std::filesystem::path> folders;
  if (store_ != nullptr) {
    try {
      const std::filesystem::path mirror = synckit::ProviderPaths::mirrorFolder();
      for (const auto& [id, name] : synckit::brainFolderNames(store_->brains()))
        folders[id] = mirror / name;
    } catch (const std::exception& error) {
      synckit::Logger(std::string(synckit::AppIdentity::applicationIdentifier), "control")
          .error("Could not name the brain folders: %s", error.what());
    }
  }
  const auto progress = instance_.progress ? instance_.progress() : std::nullopt;
  AppModel& model = instance_.model;
  return onMainThread(
      instance_.mainQueue,
      [&model, folders = std::move(folders), progress] {
        return ControlProtocol::success(
            {{"status", ControlProtocol::statusJSON(model.appState(), folders, progress)}});
      },
      stop);
}

json ControlCommands::signIn(bool noBrowser, const std::shared_ptr<ControlServer::Channel>& channel,
                             const std::stop_token& stop) {
  BrowserWebAuthenticator& authenticator = instance_.authenticator;
  struct Presenting {
    BrowserWebAuthenticator& authenticator;
    bool active;
    ~Presenting() {
      if (active) authenticator.setPresenter({});
    }
  } presenting{authenticator, noBrowser};
  if (noBrowser) {
    authenticator.setPresenter([channel](const std::string& url) {
      channel->send({{"event", "authorizationURL"}, {"url", url}});
    });
  }

  // As long as the user takes in the browser.
  return actAndAwait(
      instance_.mainQueue, instance_.model,
      [](AppModel& model) {
        if (model.appState().session().kind() == Session::Kind::signedOut)
          model.authController().signIn();
      },
      [](const AppState& state) -> std::optional<json> {
        if (state.session().kind() == Session::Kind::signingIn) return std::nullopt;
        return signInOutcome(state);
      },
      stop, std::nullopt);
}

json ControlCommands::signOut(const std::stop_token& stop) {
  // A failure shows as a new message while the session stays.
  auto before = std::make_shared<std::optional<std::string>>();
  return actAndAwait(
      instance_.mainQueue, instance_.model,
      [before](AppModel& model) {
        *before = model.appState().errorMessage();
        if (model.appState().session().kind() != Session::Kind::signedOut)
          model.authController().signOut();
      },
      [before](const AppState& state) -> std::optional<json> {
        if (state.session().kind() == Session::Kind::signedOut) return ControlProtocol::success();
        if (state.errorMessage() && state.errorMessage() != *before)
          return ControlProtocol::failure(*state.errorMessage());
        return std::nullopt;
      },
      stop, signOutTimeout);
}

json ControlCommands::quit(const std::shared_ptr<ControlServer::Channel>& channel) {
  // Answered first: once the main thread has quit, the server stops and
  // takes this connection down with it.
  channel->send(ControlProtocol::success());
  instance_.mainQueue.post(instance_.quit);
  return json();
}

}  // namespace halvark
