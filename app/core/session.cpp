#include "app/core/session.h"

namespace halvark {

std::optional<std::string> Session::memberLabel() const {
  if (const auto* signedIn = std::get_if<SignedIn>(&value)) return signedIn->memberLabel;
  return std::nullopt;
}

std::string_view toString(Session::Kind kind) {
  switch (kind) {
    case Session::Kind::signedIn:
      return "signedIn";
    case Session::Kind::signedOut:
      return "signedOut";
    case Session::Kind::signingIn:
      break;
  }
  return "signingIn";
}

}  // namespace halvark
