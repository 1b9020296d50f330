#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "synckit/api/http_transport.h"
#include "synckit/api/sync_api_error.h"
#include "synckit/api/token_providing.h"
#include "synckit/auth/oauth_client.h"
#include "synckit/auth/oauth_token_response.h"
#include "synckit/auth/session_state.h"
#include "synckit/auth/session_updates.h"
#include "synckit/auth/token_manager_error.h"
#include "synckit/base/logger.h"
#include "synckit/platform/token_persisting.h"

namespace synckit {

class MetadataStore;

// Owns the signed-in session: the stored token pair, the access token handed
// to the API client, refreshing it when the server rejects it, and the
// session state published to observers.
//
// Access tokens are used until the server rejects them; there is no expiry
// clock. Refreshes are single-flight: however many callers see a 401 at once,
// one token request is made, on a worker thread of the manager, and every
// caller waits (cancellably) for its result. The token store may be shared
// with another process, so a rotation done elsewhere is picked up instead of
// signing the user out.
//
// Every member may be called from any thread. The state lock is never held
// while the network or the token store is used; token-store calls are
// serialised with a lock of their own.
class TokenManager : public TokenProviding {
 public:
  // Returns the OAuth client id or throws; called from the refresh worker.
  using ClientIdProvider = std::function<std::string()>;

  // `transport` and `tokens` must outlive the manager.
  TokenManager(std::string baseURL, HTTPTransport& transport, TokenPersisting& tokens,
               ClientIdProvider clientId);
  // Reads the client id from the store's meta table on each refresh; with
  // none there, the refresh fails with TokenManagerError::signedOut and the
  // tokens are kept. `metadata` must outlive the manager.
  TokenManager(std::string baseURL, HTTPTransport& transport, TokenPersisting& tokens,
               MetadataStore& metadata);
  ~TokenManager() override;
  TokenManager(const TokenManager&) = delete;
  TokenManager& operator=(const TokenManager&) = delete;

  SessionState state() const;

  // Signed in exactly when a token pair is stored. A store error propagates
  // and leaves the state as it was.
  SessionState restoreSession();

  // A new stream of every later state change.
  SessionUpdates updates();

  // Stores the pair from a code exchange. Throws missingRefreshToken, and
  // changes nothing, when the server sent no refresh token.
  void signIn(const OAuthTokenResponse& response);

  // Clears the store, then publishes signedOut. A refresh still on the wire
  // will not sign the user back in.
  void signOut();

  // The stored access token, read from the store on every call; throws
  // TokenManagerError::signedOut when nothing is stored. Never touches the
  // network.
  std::string currentAccessToken() override;

  // The access token to use after `rejectedAccessToken` drew a 401: the
  // stored one when somebody refreshed meanwhile, else the result of the
  // (shared) refresh.
  std::string refreshAfterUnauthorized(
      std::optional<std::string> rejectedAccessToken = std::nullopt);

  // Runs `operation` (one sync API call that reads its token from this
  // manager); on a 401 refreshes once and runs it again. A second 401 ends
  // the session and throws TokenManagerError::signedOut. Every other failure
  // propagates unchanged.
  template <class F>
  auto withAuthRetry(F&& operation) -> decltype(operation());

 private:
  struct Shared;
  struct Flight;

  std::optional<std::string> storedAccessToken();
  void endRejectedSession();
  // Requires storeMutex_ when the change follows a store change, so that the
  // two stay in step.
  void setState(SessionState next);
  void clearFlight(const Flight& flight);
  void runRefresh(Flight& flight);
  std::string refreshTokens(Flight& flight);
  AuthServerMetadata metadata();

  OAuthClient oauth_;
  TokenPersisting& tokens_;
  ClientIdProvider clientId_;
  Logger log_;
  std::shared_ptr<Shared> shared_;  // the state lock and what it guards
  std::mutex storeMutex_;           // serialises token-store calls; taken before the state lock
  std::uint64_t sessionEnds_ = 0;   // sign-outs so far; guarded by storeMutex_
  std::jthread worker_;             // the latest refresh; guarded by storeMutex_
};

template <class F>
auto TokenManager::withAuthRetry(F&& operation) -> decltype(operation()) {
  std::optional<std::string> remembered = storedAccessToken();
  try {
    return operation();
  } catch (const SyncAPIError& error) {
    if (error.status() != 401) throw;
  }
  refreshAfterUnauthorized(remembered);
  try {
    return operation();
  } catch (const SyncAPIError& error) {
    if (error.status() != 401) throw;
  }
  endRejectedSession();
  throw TokenManagerError::signedOut();
}

}  // namespace synckit
