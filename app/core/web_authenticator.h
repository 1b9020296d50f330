#pragma once

#include <string>

#include "synckit/base/error.h"

namespace halvark {

// Why the web sign-in could not produce a callback.
class WebAuthenticatorError : public synckit::Error {
 public:
  enum class Kind { couldNotStart, noCallback };
  // "Could not open the sign-in window."
  static WebAuthenticatorError couldNotStart();
  // "Sign-in finished without a response."
  static WebAuthenticatorError noCallback();

  Kind kind() const noexcept { return kind_; }

 private:
  explicit WebAuthenticatorError(Kind kind);
  Kind kind_;
};

// The user closed the sign-in wait (the menu's "Cancel Sign-In", an
// interrupted `halvark sign-in`).
class WebAuthenticationCanceled : public synckit::Error {
 public:
  WebAuthenticationCanceled() : synckit::Error("The sign-in was cancelled.") {}
};

// Shows the service's sign-in page to the user and returns the URL the
// service redirected to at the end (the callback URL of `callbackScheme`).
class WebAuthenticator {
 public:
  virtual ~WebAuthenticator() = default;

  // Called on a worker thread; blocks until the callback URL arrives.
  // Throws WebAuthenticatorError, WebAuthenticationCanceled when the user
  // closed the wait, and CancellationError when the calling thread's stop is
  // requested.
  virtual std::string authenticate(const std::string& url, const std::string& callbackScheme) = 0;

  // Ends a wait in progress as the user's cancellation; nothing when none
  // runs. Any thread.
  virtual void cancel() = 0;
};

}  // namespace halvark
