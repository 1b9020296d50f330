#include "synckit/auth/oauth_json.h"

#include <nlohmann/json.hpp>

#include "synckit/api/encoding_error.h"
#include "synckit/api/json_reader.h"
#include "synckit/base/url.h"

namespace synckit::OAuthJSON {
namespace {

using nlohmann::json;

// Bodies arrive as bytes; the shared reader takes text.
template <class F>
auto decodeDocument(const Bytes& text, F&& read) {
  return readJSONDocument(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()),
                          std::forward<F>(read));
}

std::string url(const JSONReader& reader, std::string_view key) {
  JSONReader member = reader.member(key);
  std::string text = member.string();
  auto parts = URLComponents::parse(text);
  if (!parts || !parts->scheme) {
    member.fail(DecodingError::Kind::dataCorrupted,
                "Invalid URL for \"" + member.codingPath() + "\": " + text);
  }
  return text;
}

std::optional<std::string> optionalString(const JSONReader& reader, std::string_view key) {
  auto member = reader.optionalMember(key);
  if (!member) return std::nullopt;
  return member->string();
}

// Capability lists a server leaves out are read as empty.
std::vector<std::string> optionalStrings(const JSONReader& reader, std::string_view key) {
  auto member = reader.optionalMember(key);
  if (!member) return {};
  return member->stringArray();
}

}  // namespace

AuthServerMetadata decodeAuthServerMetadata(const Bytes& text) {
  return decodeDocument(text, [](const JSONReader& r) {
    return AuthServerMetadata{
        .issuer = r.member("issuer").string(),
        .authorizationEndpoint = url(r, "authorization_endpoint"),
        .tokenEndpoint = url(r, "token_endpoint"),
        .registrationEndpoint = url(r, "registration_endpoint"),
        .responseTypesSupported = optionalStrings(r, "response_types_supported"),
        .grantTypesSupported = optionalStrings(r, "grant_types_supported"),
        .codeChallengeMethodsSupported = optionalStrings(r, "code_challenge_methods_supported"),
        .tokenEndpointAuthMethodsSupported =
            optionalStrings(r, "token_endpoint_auth_methods_supported"),
        .scopesSupported = optionalStrings(r, "scopes_supported"),
    };
  });
}

ClientRegistration decodeClientRegistration(const Bytes& text) {
  return decodeDocument(text, [](const JSONReader& r) {
    auto issuedAt = r.optionalMember("client_id_issued_at");
    return ClientRegistration{
        .clientId = r.member("client_id").string(),
        .clientName = r.member("client_name").string(),
        .redirectUris = r.member("redirect_uris").stringArray(),
        .tokenEndpointAuthMethod = r.member("token_endpoint_auth_method").string(),
        .grantTypes = r.member("grant_types").stringArray(),
        .responseTypes = r.member("response_types").stringArray(),
        .clientIdIssuedAt = issuedAt ? std::optional(issuedAt->integer()) : std::nullopt,
    };
  });
}

OAuthTokenResponse decodeTokenResponse(const Bytes& text) {
  return decodeDocument(text, [](const JSONReader& r) {
    return OAuthTokenResponse{
        .accessToken = r.member("access_token").string(),
        .tokenType = r.member("token_type").string(),
        .expiresIn = r.member("expires_in").integer(),
        .refreshToken = optionalString(r, "refresh_token"),
        .scope = r.member("scope").string(),
    };
  });
}

OAuthError::Body decodeErrorBody(const Bytes& text) {
  return decodeDocument(text, [](const JSONReader& r) {
    return OAuthError::Body{
        .error = r.member("error").string(),
        .errorDescription = optionalString(r, "error_description"),
    };
  });
}

Bytes encode(const RegistrationBody& body) {
  json object = {
      {"client_name", body.clientName},
      {"redirect_uris", body.redirectUris},
      {"token_endpoint_auth_method", body.tokenEndpointAuthMethod},
  };
  try {
    return toBytes(object.dump());
  } catch (const json::exception&) {
    throw EncodingError(
        "The value could not be written as JSON because it contains text that is not valid UTF-8.");
  }
}

}  // namespace synckit::OAuthJSON
