#include "synckit/auth/oauth_client.h"

#include "synckit/api/sync_api_error.h"
#include "synckit/api/url_builder.h"
#include "synckit/auth/oauth_error.h"
#include "synckit/auth/oauth_json.h"
#include "synckit/base/url.h"

namespace synckit {
namespace {

constexpr std::chrono::milliseconds requestTimeout{60000};

}  // namespace

OAuthClient::OAuthClient(std::string baseURL, HTTPTransport& transport)
    : baseURL_(std::move(baseURL)), transport_(&transport) {}

HTTPResponse OAuthClient::send(HTTPRequest request) const {
  request.timeout = requestTimeout;
  HTTPResponse response = transport_->send(request);
  if (response.status < 200 || response.status > 299) {
    throw OAuthError::fromResponse(response.status, response.body);
  }
  return response;
}

AuthServerMetadata OAuthClient::discover() const {
  HTTPRequest request;
  request.method = "GET";
  request.url = makeURL(baseURL_, {".well-known", "oauth-authorization-server"});
  request.headers = {{"Accept", "application/json"}};
  return OAuthJSON::decodeAuthServerMetadata(send(std::move(request)).body);
}

ClientRegistration OAuthClient::registerClient(const AuthServerMetadata& metadata,
                                               std::string_view name,
                                               const std::vector<std::string>& redirectURIs) const {
  HTTPRequest request;
  request.method = "POST";
  request.url = metadata.registrationEndpoint;
  request.headers = {{"Accept", "application/json"}, {"Content-Type", "application/json"}};
  request.body = OAuthJSON::encode(RegistrationBody{
      .clientName = std::string(name),
      .redirectUris = redirectURIs,
      .tokenEndpointAuthMethod = std::string(tokenEndpointAuthMethod),
  });
  return OAuthJSON::decodeClientRegistration(send(std::move(request)).body);
}

std::string OAuthClient::authorizationURL(const AuthServerMetadata& metadata,
                                          std::string_view clientId, std::string_view redirectURI,
                                          std::string_view state, const PKCE& pkce,
                                          const std::optional<std::string>& resource,
                                          std::string_view scope) const {
  const std::string& endpoint = metadata.authorizationEndpoint;
  auto components = URLComponents::parse(endpoint);
  if (!components) throw SyncClientError::invalidURL(endpoint);
  components->percentEncodedQuery = encodeQueryItems({
      {"response_type", "code"},
      {"client_id", std::string(clientId)},
      {"redirect_uri", std::string(redirectURI)},
      {"state", std::string(state)},
      {"code_challenge", pkce.challenge()},
      {"code_challenge_method", pkce.method()},
      {"resource", resource.value_or(metadata.issuer)},
      {"scope", std::string(scope)},
  });
  auto url = components->string();
  if (!url) throw SyncClientError::invalidURL(endpoint);
  return *url;
}

OAuthTokenResponse OAuthClient::exchangeCode(const AuthServerMetadata& metadata,
                                             std::string_view code, const PKCE& pkce,
                                             std::string_view clientId,
                                             std::string_view redirectURI,
                                             const std::optional<std::string>& resource) const {
  QueryItems fields = {
      {"grant_type", "authorization_code"}, {"client_id", std::string(clientId)},
      {"code", std::string(code)},          {"redirect_uri", std::string(redirectURI)},
      {"code_verifier", pkce.verifier()},
  };
  if (resource) fields.emplace_back("resource", *resource);
  return requestToken(metadata, fields);
}

OAuthTokenResponse OAuthClient::refresh(const AuthServerMetadata& metadata,
                                        std::string_view refreshToken,
                                        std::string_view clientId) const {
  return requestToken(metadata, {
                                    {"grant_type", "refresh_token"},
                                    {"client_id", std::string(clientId)},
                                    {"refresh_token", std::string(refreshToken)},
                                });
}

OAuthTokenResponse OAuthClient::requestToken(const AuthServerMetadata& metadata,
                                             const QueryItems& fields) const {
  HTTPRequest request;
  request.method = "POST";
  request.url = metadata.tokenEndpoint;
  request.headers = {{"Accept", "application/json"},
                     {"Content-Type", "application/x-www-form-urlencoded"}};
  request.body = toBytes(encodeQueryItems(fields));
  return OAuthJSON::decodeTokenResponse(send(std::move(request)).body);
}

}  // namespace synckit
