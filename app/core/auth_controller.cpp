#include "app/core/auth_controller.h"

#include <atomic>
#include <list>
#include <map>
#include <thread>

#include "synckit/api/sync_api_client.h"
#include "synckit/auth/oauth_error.h"
#include "synckit/auth/pkce.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/crypto.h"
#include "synckit/base/url.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"

namespace halvark {

AuthFailure::AuthFailure(Kind kind, std::string description)
    : synckit::Error(std::move(description)), kind_(kind) {}

AuthFailure AuthFailure::storeUnavailable(const std::string& detail) {
  return AuthFailure(Kind::storeUnavailable, "Halvark's shared storage is unavailable: " + detail);
}

AuthFailure AuthFailure::authorizationFailed(const std::string& detail) {
  return AuthFailure(Kind::authorizationFailed, "Sign-in failed: " + detail);
}

AuthFailure AuthFailure::stateMismatch() {
  return AuthFailure(Kind::stateMismatch,
                     "Sign-in response did not match the request. Please try again.");
}

AuthFailure AuthFailure::missingCode() {
  return AuthFailure(Kind::missingCode, "Sign-in response had no authorization code.");
}

AuthFailure AuthFailure::randomFailure() {
  return AuthFailure(Kind::randomFailure, "Could not generate a secure sign-in request.");
}

// The threads of the sign-ins and sign-outs. Several may exist at once: a
// sign-out may be asked for while a sign-in waits for the browser, and a
// sign-in that was overtaken by a sign-out may still be winding down when the
// next one starts. Touched on the main thread only.
struct AuthController::Worker {
  struct Job {
    std::jthread thread;
    std::shared_ptr<std::atomic<bool>> finished;
  };
  std::list<Job> jobs;
  // Numbers the sign-ins, so that only the latest one's outcome is applied.
  std::uint64_t attempts = 0;
  std::stop_source signInStop{std::nostopstate};
  // Read by the tasks the jobs post, which may run after the controller is gone.
  std::shared_ptr<bool> alive = std::make_shared<bool>(true);
};

AuthController::AuthController(AppState& appState, synckit::TokenManager& tokenManager,
                               std::string baseURL, synckit::HTTPTransport& transport,
                               synckit::MetadataStore* metadata,
                               std::optional<std::string> storeFailure,
                               WebAuthenticator& authenticator, MainQueue& mainQueue,
                               std::string hostName)
    : appState_(appState),
      tokenManager_(tokenManager),
      oauth_(baseURL, transport),
      baseURL_(std::move(baseURL)),
      transport_(transport),
      metadata_(metadata),
      storeFailure_(std::move(storeFailure)),
      authenticator_(authenticator),
      mainQueue_(mainQueue),
      hostName_(std::move(hostName)),
      worker_(std::make_unique<Worker>()) {}

AuthController::~AuthController() {
  *worker_->alive = false;
  for (Worker::Job& job : worker_->jobs) job.thread.request_stop();
  // The stop ends the browser wait too; this is for an authenticator that
  // only hears its own cancellation.
  if (worker_->signInStop.stop_possible()) authenticator_.cancel();
  worker_->jobs.clear();
}

std::stop_source AuthController::start(std::function<std::function<void()>()> job) {
  std::erase_if(worker_->jobs, [](const Worker::Job& done) { return done.finished->load(); });
  auto finished = std::make_shared<std::atomic<bool>>(false);
  std::jthread thread(
      [this, job = std::move(job), finished, alive = worker_->alive](std::stop_token stop) {
        synckit::CancellationScope scope(stop);
        std::function<void()> apply = job();
        mainQueue_.post([alive, apply = std::move(apply)] {
          if (*alive) apply();
        });
        finished->store(true);
      });
  std::stop_source stop = thread.get_stop_source();
  worker_->jobs.push_back({std::move(thread), std::move(finished)});
  return stop;
}

void AuthController::signIn() {
  if (appState_.session().kind() != Session::Kind::signedOut) return;
  appState_.setErrorMessage(std::nullopt);
  appState_.setSession(Session::signingIn());

  // A sign-in that a sign-out overtook may still wait for its browser; the
  // user has moved on.
  if (worker_->signInStop.stop_possible()) worker_->signInStop.request_stop();
  const std::uint64_t attempt = ++worker_->attempts;
  worker_->signInStop = start([this, attempt]() -> std::function<void()> {
    bool succeeded = false;
    std::optional<std::string> failure;
    try {
      runFlow();
      succeeded = true;
    } catch (const QuietCancellation&) {
    } catch (const synckit::CancellationError&) {
      // Cancel Sign-In stops the flow wherever it is, not only in the browser.
    } catch (const std::exception& error) {
      failure = messageFor(error);
    }
    return [this, attempt, succeeded, failure] {
      if (attempt != worker_->attempts) return;
      worker_->signInStop = std::stop_source(std::nostopstate);
      if (succeeded) {
        appState_.setSession(Session::signedIn(appState_.memberLabel()));
        return;
      }
      appState_.setSession(Session::signedOut());
      if (failure) appState_.setErrorMessage(*failure);
    };
  });
}

void AuthController::cancelSignIn() {
  if (!worker_->signInStop.stop_possible()) return;
  worker_->signInStop.request_stop();
  authenticator_.cancel();
}

void AuthController::signOut() {
  // The keychain may ask the user or wait for its service.
  start([this]() -> std::function<void()> {
    std::optional<std::string> failure;
    try {
      tokenManager_.signOut();
    } catch (const std::exception& error) {
      failure = messageFor(error);
    }
    return [this, failure] {
      if (failure) {
        appState_.setErrorMessage(*failure);
      } else {
        appState_.setSession(Session::signedOut());
      }
    };
  });
}

void AuthController::runFlow() {
  if (!metadata_) throw AuthFailure::storeUnavailable(storeFailure_.value_or("unknown error"));
  const synckit::AuthServerMetadata server = oauth_.discover();

  std::optional<std::string> clientId = metadata_->metaValue(synckit::MetaKey::clientId);
  if (!clientId) {
    const std::string redirect(synckit::OAuthClient::redirectURI);
    clientId = oauth_
                   .registerClient(server, synckit::OAuthClient::clientName,
                                   std::vector<std::string>{redirect})
                   .clientId;
    metadata_->setMeta(synckit::MetaKey::clientId, clientId);
  }

  std::optional<synckit::PKCE> pkce;
  std::string state;
  try {
    pkce = synckit::PKCE::generate();
    state = synckit::base64URLEncode(synckit::secureRandomBytes(32));
  } catch (const synckit::RandomSourceError&) {
    throw AuthFailure::randomFailure();
  }

  const std::string url =
      oauth_.authorizationURL(server, *clientId, synckit::OAuthClient::redirectURI, state, *pkce,
                              std::nullopt, synckit::OAuthClient::scope);
  std::string callback;
  try {
    callback = authenticator_.authenticate(url, std::string(callbackScheme));
  } catch (const WebAuthenticationCanceled&) {
    throw QuietCancellation();
  }
  const std::string code = parseCallback(callback, state);

  tokenManager_.signIn(oauth_.exchangeCode(server, code, *pkce, *clientId,
                                           synckit::OAuthClient::redirectURI, std::nullopt));
  registerDeviceIfNeeded();
}

void AuthController::registerDeviceIfNeeded() {
  try {
    if (metadata_->metaValue(synckit::MetaKey::deviceId)) return;
    const synckit::SyncAPIClient api(baseURL_, transport_, tokenManager_);
    const synckit::Device device = api.registerDevice(hostName_, std::string(platform));
    metadata_->writeTransaction([&] {
      metadata_->setMeta(synckit::MetaKey::deviceId, device.id);
      metadata_->setMeta(synckit::MetaKey::deviceName, device.name);
    });
  } catch (...) {
    // Tokens without a device would sync as nobody; the next attempt starts
    // over from the browser.
    try {
      tokenManager_.signOut();
    } catch (const std::exception&) {
    }
    throw;
  }
}

std::string AuthController::parseCallback(const std::string& callbackURL,
                                          const std::string& expectedState) {
  std::map<std::string, std::string> items;
  if (auto parts = synckit::URLComponents::parse(callbackURL)) {
    for (auto& [name, value] : parts->queryItems()) {
      if (value) {
        items[name] = std::move(*value);
      } else {
        items.erase(name);
      }
    }
  }
  if (items.empty()) throw AuthFailure::stateMismatch();

  if (auto error = items.find("error"); error != items.end()) {
    if (error->second == "access_denied") throw QuietCancellation();
    auto description = items.find("error_description");
    throw AuthFailure::authorizationFailed(description != items.end() ? description->second
                                                                      : error->second);
  }
  if (auto state = items.find("state"); state == items.end() || state->second != expectedState) {
    throw AuthFailure::stateMismatch();
  }
  auto code = items.find("code");
  if (code == items.end() || code->second.empty()) throw AuthFailure::missingCode();
  return code->second;
}

std::string AuthController::messageFor(const std::exception& error) {
  if (auto* oauth = dynamic_cast<const synckit::OAuthError*>(&error)) {
    return oauth->errorDescription().value_or(oauth->description());
  }
  if (auto* own = dynamic_cast<const synckit::Error*>(&error)) return own->description();
  return error.what();
}

}  // namespace halvark
