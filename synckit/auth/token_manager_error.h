#pragma once

#include "synckit/base/error.h"

namespace synckit {

// Session failures. `signedOut` is the order every sync loop treats as "stop
// and show the signed-out state".
class TokenManagerError : public Error {
 public:
  enum class Kind { signedOut, missingRefreshToken };

  static TokenManagerError signedOut() { return TokenManagerError(Kind::signedOut); }
  static TokenManagerError missingRefreshToken() {
    return TokenManagerError(Kind::missingRefreshToken);
  }

  Kind kind() const noexcept { return kind_; }
  bool operator==(const TokenManagerError& other) const { return kind_ == other.kind_; }

 private:
  explicit TokenManagerError(Kind kind);

  Kind kind_;
};

}  // namespace synckit
