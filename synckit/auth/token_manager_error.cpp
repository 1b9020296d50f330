#include "synckit/auth/token_manager_error.h"

namespace synckit {
namespace {

const char* describe(TokenManagerError::Kind kind) {
  switch (kind) {
    case TokenManagerError::Kind::signedOut:
      return "Signed out of Halvark. Sign in again to continue.";
    case TokenManagerError::Kind::missingRefreshToken:
      return "The server did not return a refresh token.";
  }
  return "";
}

}  // namespace

TokenManagerError::TokenManagerError(Kind kind) : Error(describe(kind)), kind_(kind) {}

}  // namespace synckit
