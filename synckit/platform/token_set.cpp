#include "synckit/platform/token_set.h"

#include <nlohmann/json.hpp>

#include "synckit/base/error.h"

namespace synckit {
namespace {

std::string requiredString(const nlohmann::json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end()) {
    throw DecodingError(
        DecodingError::Kind::keyNotFound,
        std::string("The stored tokens are incomplete: \"") + key + "\" is missing.");
  }
  if (found->is_null()) {
    throw DecodingError(DecodingError::Kind::valueNotFound,
                        std::string("The stored tokens are incomplete: \"") + key + "\" is null.");
  }
  if (!found->is_string()) {
    throw DecodingError(
        DecodingError::Kind::typeMismatch,
        std::string("The stored tokens are damaged: \"") + key + "\" is not a string.");
  }
  return found->get<std::string>();
}

}  // namespace

Bytes encodeTokenSet(const TokenSet& tokens) {
  nlohmann::json object{{"accessToken", tokens.accessToken}, {"refreshToken", tokens.refreshToken}};
  try {
    return toBytes(object.dump());
  } catch (const nlohmann::json::type_error&) {
    // Only a token that is not UTF-8 gets here; storing a mangled copy would
    // sign the user out later for no visible reason, so refuse now.
    throw Error("The tokens could not be stored because they are not valid text.");
  }
}

TokenSet decodeTokenSet(std::span<const std::uint8_t> data) {
  auto value = nlohmann::json::parse(data.begin(), data.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) {
    throw DecodingError(DecodingError::Kind::dataCorrupted,
                        "The stored tokens are not valid JSON.");
  }
  if (!value.is_object()) {
    throw DecodingError(DecodingError::Kind::typeMismatch,
                        "The stored tokens are not a JSON object.");
  }
  return TokenSet{requiredString(value, "accessToken"), requiredString(value, "refreshToken")};
}

}  // namespace synckit
