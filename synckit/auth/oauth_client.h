#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "synckit/api/http_transport.h"
#include "synckit/api/url_builder.h"
#include "synckit/auth/auth_server_metadata.h"
#include "synckit/auth/client_registration.h"
#include "synckit/auth/oauth_token_response.h"
#include "synckit/auth/pkce.h"

namespace synckit {

// The client side of OAuth 2.0 for a public desktop client: discovery,
// dynamic registration, the authorization URL and the token grants. It keeps
// nothing between calls; callers keep what it returns. Safe to call from any
// thread (as safe as the transport, which must be). Never retries; every
// non-2xx answer throws OAuthError, transport and decoding failures propagate.
class OAuthClient {
 public:
  static constexpr std::string_view clientName = "Halvark Desktop";
  static constexpr std::string_view redirectURI = "halvark://oauth/callback";
  static constexpr std::string_view scope = "readwrite";
  static constexpr std::string_view tokenEndpointAuthMethod = "none";

  // `transport` must outlive the client.
  OAuthClient(std::string baseURL, HTTPTransport& transport);

  const std::string& baseURL() const noexcept { return baseURL_; }

  // The metadata document below the base URL's path.
  AuthServerMetadata discover() const;

  // Registers this application as a public client (no secret).
  ClientRegistration registerClient(const AuthServerMetadata& metadata, std::string_view name,
                                    const std::vector<std::string>& redirectURIs) const;

  // The URL to open in the browser. `resource` defaults to the issuer.
  // Throws SyncClientError::invalidURL when the endpoint is not a URL.
  std::string authorizationURL(const AuthServerMetadata& metadata, std::string_view clientId,
                               std::string_view redirectURI, std::string_view state,
                               const PKCE& pkce, const std::optional<std::string>& resource,
                               std::string_view scope) const;

  OAuthTokenResponse exchangeCode(const AuthServerMetadata& metadata, std::string_view code,
                                  const PKCE& pkce, std::string_view clientId,
                                  std::string_view redirectURI,
                                  const std::optional<std::string>& resource = std::nullopt) const;

  OAuthTokenResponse refresh(const AuthServerMetadata& metadata, std::string_view refreshToken,
                             std::string_view clientId) const;

 private:
  HTTPResponse send(HTTPRequest request) const;
  OAuthTokenResponse requestToken(const AuthServerMetadata& metadata,
                                  const QueryItems& fields) const;

  std::string baseURL_;
  HTTPTransport* transport_;
};

}  // namespace synckit
