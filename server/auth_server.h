#pragma once
// The OAuth 2.0 authorisation server's state: registered public clients,
// authorisation codes and the access and refresh tokens they turn into.
// Tokens and codes are kept only as SHA-256 digests, so that neither the state
// file nor a debugger dump shows a usable secret. Not thread-safe: SharedState
// serialises every call.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

struct OAuthClientRecord {
  std::string clientId;
  std::string clientName;
  std::vector<std::string> redirectUris;
  std::int64_t issuedAt = 0;  // seconds since the epoch
  bool operator==(const OAuthClientRecord&) const = default;
};

struct AuthCodeRecord {
  std::string clientId;
  std::string redirectUri;
  std::string codeChallenge;
  std::string member;
  std::string scope;
  std::optional<std::string> resource;
  std::int64_t expiresAt = 0;  // milliseconds
  bool operator==(const AuthCodeRecord&) const = default;
};

struct TokenRecord {
  std::string member;
  std::string clientId;
  std::string scope;
  std::int64_t expiresAt = 0;  // milliseconds; unused for refresh tokens
  bool operator==(const TokenRecord&) const = default;
};

// What the token endpoint hands out.
struct IssuedTokens {
  std::string accessToken;
  std::string refreshToken;
  std::int64_t expiresIn = 0;  // seconds
  std::string scope;
  bool operator==(const IssuedTokens&) const = default;
};

// The parameters of one authorisation request, as they arrive.
struct AuthorizationRequest {
  std::string responseType;
  std::string clientId;
  std::string redirectUri;
  std::optional<std::string> state;
  std::string codeChallenge;
  std::string codeChallengeMethod;
  std::optional<std::string> resource;
  std::optional<std::string> scope;
  bool operator==(const AuthorizationRequest&) const = default;
};

class AuthServer {
 public:
  static constexpr std::int64_t kCodeLifetimeMillis = 10 * 60 * 1000;
  static constexpr const char* kScope = "readwrite";

  explicit AuthServer(std::int64_t accessTokenLifetimeSeconds = 3600);

  OAuthClientRecord registerClient(const std::string& clientName,
                                   const std::vector<std::string>& redirectUris,
                                   const std::string& authMethod, std::int64_t now);

  // Checks that the client and redirect URI are known: failing that, the user
  // agent must not be sent anywhere (the error is shown, never redirected).
  // Throws OAuthFailure.
  void checkClientAndRedirect(const AuthorizationRequest& request) const;

  // Checks the rest of the request; failures here are reported to the client by
  // redirect, so the error code is what matters. Returns the granted scope.
  std::string checkRequest(const AuthorizationRequest& request) const;

  // Issues a code for a signed-in member after both checks passed.
  std::string issueCode(const AuthorizationRequest& request, const std::string& member,
                        std::int64_t now);

  IssuedTokens exchangeCode(const std::string& clientId, const std::string& code,
                            const std::string& redirectUri, const std::string& codeVerifier,
                            std::int64_t now);
  IssuedTokens refresh(const std::string& clientId, const std::string& refreshToken,
                       std::int64_t now);

  // The member an access token belongs to, or nothing when it is unknown or expired.
  std::optional<std::string> authenticate(const std::string& accessToken, std::int64_t now) const;

  // Makes access tokens expire now (all, or one member's); with `revokeRefresh`
  // the refresh tokens go too. Returns how many access tokens were affected.
  std::size_t expireTokens(const std::optional<std::string>& member, bool revokeRefresh,
                           std::int64_t now);

  std::int64_t accessTokenLifetime() const { return accessLifetime_; }
  void setAccessTokenLifetime(std::int64_t seconds) { accessLifetime_ = seconds; }

  // Everything, for persistence; keys of the token maps are digests.
  std::map<std::string, OAuthClientRecord> clients;
  std::map<std::string, AuthCodeRecord> codes;
  std::map<std::string, TokenRecord> accessTokens;
  std::map<std::string, TokenRecord> refreshTokens;

 private:
  const OAuthClientRecord& requireClient(const std::string& clientId) const;
  IssuedTokens issueTokens(const std::string& member, const std::string& clientId,
                           const std::string& scope, std::int64_t now);

  std::int64_t accessLifetime_;
};

}  // namespace devserver
