#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace synckit {

// The token endpoint's answer to a code exchange or a refresh. The refresh
// token is absent when the server keeps the one the client already has.
struct OAuthTokenResponse {
  std::string accessToken;
  std::string tokenType;
  std::int64_t expiresIn = 0;
  std::optional<std::string> refreshToken;
  std::string scope;

  bool operator==(const OAuthTokenResponse&) const = default;
};

}  // namespace synckit
