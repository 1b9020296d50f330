#include "server/auth_server.h"

#include <algorithm>
#include <sstream>

#include "server/crypto.h"
#include "server/service_error.h"

namespace devserver {
namespace {

OAuthFailure invalidRequest(const std::string& description) {
  return {400, "invalid_request", description};
}
OAuthFailure invalidGrant(const std::string& description) {
  return {400, "invalid_grant", description};
}

bool scopeIsSupported(const std::string& scope) {
  std::istringstream words(scope);
  std::string word;
  bool any = false;
  while (words >> word) {
    if (word != AuthServer::kScope) return false;
    any = true;
  }
  return any;
}

}  // namespace

AuthServer::AuthServer(std::int64_t accessTokenLifetimeSeconds)
    : accessLifetime_(accessTokenLifetimeSeconds) {}

OAuthClientRecord AuthServer::registerClient(const std::string& clientName,
                                             const std::vector<std::string>& redirectUris,
                                             const std::string& authMethod, std::int64_t now) {
  if (redirectUris.empty()) {
    throw OAuthFailure(400, "invalid_redirect_uri", "At least one redirect URI is required.");
  }
  for (const auto& uri : redirectUris) {
    if (uri.find(':') == std::string::npos || uri.find('#') != std::string::npos) {
      throw OAuthFailure(400, "invalid_redirect_uri", "Not an absolute URI: " + uri);
    }
  }
  if (authMethod != "none") {
    throw OAuthFailure(400, "invalid_client_metadata",
                       "Only public clients (token_endpoint_auth_method \"none\") are supported.");
  }
  OAuthClientRecord record{"hvc_" + randomToken(16), clientName, redirectUris, now / 1000};
  clients[record.clientId] = record;
  return record;
}

const OAuthClientRecord& AuthServer::requireClient(const std::string& clientId) const {
  auto it = clients.find(clientId);
  if (it == clients.end()) {
    throw OAuthFailure(401, "invalid_client", "Unknown client.");
  }
  return it->second;
}

void AuthServer::checkClientAndRedirect(const AuthorizationRequest& request) const {
  if (request.clientId.empty()) throw invalidRequest("client_id is missing.");
  auto it = clients.find(request.clientId);
  if (it == clients.end()) throw OAuthFailure(400, "invalid_client", "Unknown client.");
  const auto& uris = it->second.redirectUris;
  if (std::find(uris.begin(), uris.end(), request.redirectUri) == uris.end()) {
    throw invalidRequest("The redirect URI is not registered for this client.");
  }
}

std::string AuthServer::checkRequest(const AuthorizationRequest& request) const {
  if (request.responseType != "code") {
    throw OAuthFailure(400, "unsupported_response_type", "Only response_type=code is supported.");
  }
  if (request.codeChallenge.empty()) throw invalidRequest("code_challenge is required.");
  if (request.codeChallengeMethod != "S256") {
    throw invalidRequest("code_challenge_method must be S256.");
  }
  std::string scope = request.scope.value_or(kScope);
  if (!scopeIsSupported(scope)) {
    throw OAuthFailure(400, "invalid_scope", "Unsupported scope: " + scope);
  }
  return kScope;
}

std::string AuthServer::issueCode(const AuthorizationRequest& request, const std::string& member,
                                  std::int64_t now) {
  std::string code = randomToken(32);
  codes[sha256Hex(code)] =
      AuthCodeRecord{request.clientId,      request.redirectUri, request.codeChallenge,    member,
                     checkRequest(request), request.resource,    now + kCodeLifetimeMillis};
  // Stale codes would otherwise pile up in the state file.
  std::erase_if(codes, [now](const auto& entry) { return entry.second.expiresAt <= now; });
  return code;
}

IssuedTokens AuthServer::issueTokens(const std::string& member, const std::string& clientId,
                                     const std::string& scope, std::int64_t now) {
  std::erase_if(accessTokens, [now](const auto& entry) { return entry.second.expiresAt <= now; });
  IssuedTokens tokens{randomToken(32), randomToken(32), accessLifetime_, scope};
  accessTokens[sha256Hex(tokens.accessToken)] =
      TokenRecord{member, clientId, scope, now + accessLifetime_ * 1000};
  refreshTokens[sha256Hex(tokens.refreshToken)] = TokenRecord{member, clientId, scope, 0};
  return tokens;
}

IssuedTokens AuthServer::exchangeCode(const std::string& clientId, const std::string& code,
                                      const std::string& redirectUri,
                                      const std::string& codeVerifier, std::int64_t now) {
  if (clientId.empty()) throw invalidRequest("client_id is missing.");
  if (code.empty()) throw invalidRequest("code is missing.");
  if (codeVerifier.empty()) throw invalidRequest("code_verifier is missing.");
  requireClient(clientId);
  auto it = codes.find(sha256Hex(code));
  if (it == codes.end() || it->second.clientId != clientId) {
    throw invalidGrant("The authorization code is unknown or was already used.");
  }
  // A code is spent by any attempt, so that a wrong verifier cannot be retried.
  AuthCodeRecord record = it->second;
  codes.erase(it);
  if (record.expiresAt <= now) throw invalidGrant("The authorization code has expired.");
  if (record.redirectUri != redirectUri) {
    throw invalidGrant("The redirect URI does not match the authorization request.");
  }
  if (sha256Base64Url(codeVerifier) != record.codeChallenge) {
    throw invalidGrant("The code verifier does not match the code challenge.");
  }
  return issueTokens(record.member, clientId, record.scope, now);
}

IssuedTokens AuthServer::refresh(const std::string& clientId, const std::string& refreshToken,
                                 std::int64_t now) {
  if (clientId.empty()) throw invalidRequest("client_id is missing.");
  if (refreshToken.empty()) throw invalidRequest("refresh_token is missing.");
  requireClient(clientId);
  auto it = refreshTokens.find(sha256Hex(refreshToken));
  if (it == refreshTokens.end() || it->second.clientId != clientId) {
    throw invalidGrant("The refresh token is unknown or was already used.");
  }
  // Rotation: the used token goes; the tokens issued in its place stay valid even
  // if somebody presents the used one again.
  TokenRecord record = it->second;
  refreshTokens.erase(it);
  return issueTokens(record.member, clientId, record.scope, now);
}

std::optional<std::string> AuthServer::authenticate(const std::string& accessToken,
                                                    std::int64_t now) const {
  auto it = accessTokens.find(sha256Hex(accessToken));
  if (it == accessTokens.end() || it->second.expiresAt <= now) return std::nullopt;
  return it->second.member;
}

std::size_t AuthServer::expireTokens(const std::optional<std::string>& member, bool revokeRefresh,
                                     std::int64_t now) {
  std::size_t count = 0;
  for (auto& [digest, record] : accessTokens) {
    if (member && record.member != *member) continue;
    if (record.expiresAt > now) {
      record.expiresAt = now;
      ++count;
    }
  }
  if (revokeRefresh) {
    std::erase_if(refreshTokens,
                  [&](const auto& entry) { return !member || entry.second.member == *member; });
  }
  return count;
}

}  // namespace devserver
