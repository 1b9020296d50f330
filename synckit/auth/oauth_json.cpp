#include "synckit/auth/oauth_json.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "synckit/base/url.h"

namespace synckit::OAuthJSON {
namespace {

using nlohmann::json;

// Reads the members of one JSON object, turning every shape problem into a
// DecodingError that names `record` and the key.
class ObjectReader {
 public:
  ObjectReader(const Bytes& text, std::string record) : record_(std::move(record)) {
    try {
      object_ = json::parse(text.begin(), text.end());
    } catch (const json::parse_error&) {
      throw DecodingError(DecodingError::Kind::dataCorrupted, record_ + " is not valid JSON.");
    }
    if (!object_.is_object()) {
      throw DecodingError(DecodingError::Kind::typeMismatch, record_ + " is not a JSON object.");
    }
  }

  std::string string(const char* key) const { return asString(required(key), key); }

  std::optional<std::string> optionalString(const char* key) const {
    const json* value = find(key);
    if (!value) return std::nullopt;
    return asString(*value, key);
  }

  std::string url(const char* key) const {
    std::string text = string(key);
    auto parts = URLComponents::parse(text);
    if (text.empty() || !parts || !parts->scheme) {
      throw DecodingError(DecodingError::Kind::dataCorrupted,
                          record_ + " has an invalid URL for \u201c" + key + "\u201d.");
    }
    return text;
  }

  std::vector<std::string> strings(const char* key) const { return asStrings(required(key), key); }

  std::vector<std::string> optionalStrings(const char* key) const {
    const json* value = find(key);
    if (!value) return {};
    return asStrings(*value, key);
  }

  std::int64_t integer(const char* key) const { return asInteger(required(key), key); }

  std::optional<std::int64_t> optionalInteger(const char* key) const {
    const json* value = find(key);
    if (!value) return std::nullopt;
    return asInteger(*value, key);
  }

 private:
  const json* find(const char* key) const {
    auto it = object_.find(key);
    if (it == object_.end() || it->is_null()) return nullptr;
    return &*it;
  }

  const json& required(const char* key) const {
    auto it = object_.find(key);
    if (it == object_.end()) {
      throw DecodingError(DecodingError::Kind::keyNotFound,
                          record_ + " has no value for \u201c" + key + "\u201d.");
    }
    if (it->is_null()) {
      throw DecodingError(DecodingError::Kind::valueNotFound,
                          record_ + " has null for \u201c" + key + "\u201d.");
    }
    return *it;
  }

  [[noreturn]] void mismatch(const char* key, const char* expected) const {
    throw DecodingError(
        DecodingError::Kind::typeMismatch,
        record_ + " has the wrong type for \u201c" + key + "\u201d (expected " + expected + ").");
  }

  std::string asString(const json& value, const char* key) const {
    if (!value.is_string()) mismatch(key, "a string");
    return value.get<std::string>();
  }

  std::vector<std::string> asStrings(const json& value, const char* key) const {
    if (!value.is_array()) mismatch(key, "an array of strings");
    std::vector<std::string> out;
    out.reserve(value.size());
    for (const auto& element : value) out.push_back(asString(element, key));
    return out;
  }

  std::int64_t asInteger(const json& value, const char* key) const {
    if (value.is_number_unsigned()) {
      auto n = value.get<std::uint64_t>();
      if (n > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        mismatch(key, "a 64-bit integer");
      }
      return static_cast<std::int64_t>(n);
    }
    if (value.is_number_integer()) return value.get<std::int64_t>();
    if (value.is_number_float()) {
      // Some servers write 3600.0; accept it when it is a whole number.
      double d = value.get<double>();
      if (std::trunc(d) == d && d >= -9.2e18 && d <= 9.2e18) return static_cast<std::int64_t>(d);
    }
    mismatch(key, "an integer");
  }

  std::string record_;
  json object_;
};

}  // namespace

AuthServerMetadata decodeAuthServerMetadata(const Bytes& text) {
  ObjectReader reader(text, "The authorization server metadata");
  return AuthServerMetadata{
      .issuer = reader.string("issuer"),
      .authorizationEndpoint = reader.url("authorization_endpoint"),
      .tokenEndpoint = reader.url("token_endpoint"),
      .registrationEndpoint = reader.url("registration_endpoint"),
      .responseTypesSupported = reader.optionalStrings("response_types_supported"),
      .grantTypesSupported = reader.optionalStrings("grant_types_supported"),
      .codeChallengeMethodsSupported = reader.optionalStrings("code_challenge_methods_supported"),
      .tokenEndpointAuthMethodsSupported =
          reader.optionalStrings("token_endpoint_auth_methods_supported"),
      .scopesSupported = reader.optionalStrings("scopes_supported"),
  };
}

ClientRegistration decodeClientRegistration(const Bytes& text) {
  ObjectReader reader(text, "The client registration");
  return ClientRegistration{
      .clientId = reader.string("client_id"),
      .clientName = reader.string("client_name"),
      .redirectUris = reader.strings("redirect_uris"),
      .tokenEndpointAuthMethod = reader.string("token_endpoint_auth_method"),
      .grantTypes = reader.strings("grant_types"),
      .responseTypes = reader.strings("response_types"),
      .clientIdIssuedAt = reader.optionalInteger("client_id_issued_at"),
  };
}

OAuthTokenResponse decodeTokenResponse(const Bytes& text) {
  ObjectReader reader(text, "The token response");
  return OAuthTokenResponse{
      .accessToken = reader.string("access_token"),
      .tokenType = reader.string("token_type"),
      .expiresIn = reader.integer("expires_in"),
      .refreshToken = reader.optionalString("refresh_token"),
      .scope = reader.string("scope"),
  };
}

OAuthError::Body decodeErrorBody(const Bytes& text) {
  ObjectReader reader(text, "The OAuth error");
  return OAuthError::Body{
      .error = reader.string("error"),
      .errorDescription = reader.optionalString("error_description"),
  };
}

Bytes encode(const RegistrationBody& body) {
  json object = {
      {"client_name", body.clientName},
      {"redirect_uris", body.redirectUris},
      {"token_endpoint_auth_method", body.tokenEndpointAuthMethod},
  };
  // A name that is not valid UTF-8 is sent with replacement characters rather
  // than failing registration.
  return toBytes(object.dump(-1, ' ', false, json::error_handler_t::replace));
}

}  // namespace synckit::OAuthJSON
