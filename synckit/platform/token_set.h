#pragma once

#include <span>
#include <string>

#include "synckit/base/bytes.h"

namespace synckit {

// The signed-in user's OAuth token pair. Persisted as the JSON object
// {"accessToken": ..., "refreshToken": ...}.
struct TokenSet {
  std::string accessToken;
  std::string refreshToken;

  bool operator==(const TokenSet&) const = default;
};

// The stored form: a UTF-8 JSON object with exactly the keys "accessToken"
// and "refreshToken". Throws Error when a token is not valid UTF-8.
Bytes encodeTokenSet(const TokenSet& tokens);
// Reads the stored form back; throws DecodingError when the bytes are not
// JSON, not an object, or lack either key as a string. Other keys are ignored.
TokenSet decodeTokenSet(std::span<const std::uint8_t> data);

}  // namespace synckit
