#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "app/core/app_state.h"
#include "app/core/main_queue.h"
#include "app/core/web_authenticator.h"
#include "synckit/api/http_transport.h"
#include "synckit/auth/oauth_client.h"
#include "synckit/base/error.h"

namespace synckit {
class MetadataStore;
class TokenManager;
}  // namespace synckit

namespace halvark {

// Why a sign-in failed; the descriptions are shown as they are.
class AuthFailure : public synckit::Error {
 public:
  enum class Kind {
    storeUnavailable,
    authorizationFailed,
    stateMismatch,
    missingCode,
    randomFailure
  };
  // "Halvark's shared storage is unavailable: {detail}"
  static AuthFailure storeUnavailable(const std::string& detail);
  // "Sign-in failed: {detail}"
  static AuthFailure authorizationFailed(const std::string& detail);
  // "Sign-in response did not match the request. Please try again."
  static AuthFailure stateMismatch();
  // "Sign-in response had no authorization code."
  static AuthFailure missingCode();
  // "Could not generate a secure sign-in request."
  static AuthFailure randomFailure();

  Kind kind() const noexcept { return kind_; }

 private:
  AuthFailure(Kind kind, std::string description);
  Kind kind_;
};

// The user cancelled: the attempt ends without a message.
class QuietCancellation : public synckit::Error {
 public:
  QuietCancellation() : synckit::Error("The sign-in was cancelled.") {}
};

// Runs the interactive sign-in (OAuth authorization code with PKCE through
// the WebAuthenticator, then device registration) and the sign-out, and
// reports both through AppState's session and errorMessage.
//
// Lives on the main thread: signIn(), cancelSignIn() and signOut() are called
// there and return at once; the network and keychain work runs on a worker
// thread of the controller, and its outcome is applied on the main thread.
// Destroying the controller cancels a sign-in in progress and waits for its
// worker.
class AuthController {
 public:
  static constexpr std::string_view callbackScheme = "halvark";
  static constexpr std::string_view platform = "linux";

  // Everything borrowed must outlive the controller. `metadata` is null when
  // the store could not be opened, and `storeFailure` then says why.
  // `hostName` is the device name registered with the service.
  AuthController(AppState& appState, synckit::TokenManager& tokenManager, std::string baseURL,
                 synckit::HTTPTransport& transport, synckit::MetadataStore* metadata,
                 std::optional<std::string> storeFailure, WebAuthenticator& authenticator,
                 MainQueue& mainQueue, std::string hostName);
  ~AuthController();
  AuthController(const AuthController&) = delete;
  AuthController& operator=(const AuthController&) = delete;

  // The user's "Sign In". Does nothing unless signed out.
  void signIn();
  // The user's "Cancel Sign-In": ends the browser wait as a quiet
  // cancellation. Nothing when no sign-in runs.
  void cancelSignIn();
  // The user's "Sign Out". The client id and the device registration stay.
  void signOut();

  // The authorization code of a callback URL, checked against the expected
  // state. Throws AuthFailure and QuietCancellation. Pure; any thread.
  static std::string parseCallback(const std::string& callbackURL,
                                   const std::string& expectedState);

  // The text errorMessage shows for a failed sign-in or sign-out.
  static std::string messageFor(const std::exception& error);

 private:
  struct Worker;

  // Runs `job` on a thread of its own with a stop token of its own, and
  // applies the outcome it returns on the main thread while the controller
  // lives. Returns the job's stop source.
  std::stop_source start(std::function<std::function<void()>()> job);
  void runFlow();  // on the worker
  void registerDeviceIfNeeded();

  AppState& appState_;
  synckit::TokenManager& tokenManager_;
  synckit::OAuthClient oauth_;
  std::string baseURL_;
  synckit::HTTPTransport& transport_;
  synckit::MetadataStore* metadata_;
  std::optional<std::string> storeFailure_;
  WebAuthenticator& authenticator_;
  MainQueue& mainQueue_;
  std::string hostName_;
  std::unique_ptr<Worker> worker_;
};

}  // namespace halvark
