#pragma once

#include <string>

namespace synckit {

// The signed-in user's OAuth token pair. Persisted as the JSON object
// {"accessToken": ..., "refreshToken": ...}.
struct TokenSet {
  std::string accessToken;
  std::string refreshToken;

  bool operator==(const TokenSet&) const = default;
};

}  // namespace synckit
