#include "app/core/web_authenticator.h"

namespace halvark {
namespace {

std::string describe(WebAuthenticatorError::Kind kind) {
  switch (kind) {
    case WebAuthenticatorError::Kind::couldNotStart:
      return "Could not open the sign-in window.";
    case WebAuthenticatorError::Kind::noCallback:
      break;
  }
  return "Sign-in finished without a response.";
}

}  // namespace

WebAuthenticatorError::WebAuthenticatorError(Kind kind)
    : synckit::Error(describe(kind)), kind_(kind) {}

WebAuthenticatorError WebAuthenticatorError::couldNotStart() {
  return WebAuthenticatorError(Kind::couldNotStart);
}

WebAuthenticatorError WebAuthenticatorError::noCallback() {
  return WebAuthenticatorError(Kind::noCallback);
}

}  // namespace halvark
