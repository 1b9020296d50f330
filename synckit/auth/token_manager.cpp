#include "synckit/auth/token_manager.h"

#include <condition_variable>
#include <exception>
#include <functional>
#include <map>

#include "synckit/auth/oauth_error.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/crypto.h"
#include "synckit/base/metadata_store_error.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/keychain_token_store_error.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/sqlite_error.h"

namespace synckit {
namespace {

template <class E>
std::function<void()> throwCopyOf(const E& error) {
  return [error] { throw error; };
}

// The current exception as each waiter of a refresh will get it: every call
// throws a fresh copy, so that no exception object is shared between
// threads (its release would be ordered only inside the C++ runtime, out of
// the sanitizers' sight). Types not listed here are shared as they are.
std::function<void()> captureFailure() {
  try {
    throw;
  } catch (const TokenManagerError& error) {
    return throwCopyOf(error);
  } catch (const OAuthError& error) {
    return throwCopyOf(error);
  } catch (const SyncAPIError& error) {
    return throwCopyOf(error);
  } catch (const SyncClientError& error) {
    return throwCopyOf(error);
  } catch (const CancellationError& error) {
    return throwCopyOf(error);
  } catch (const TransportError& error) {
    return throwCopyOf(error);
  } catch (const DecodingError& error) {
    return throwCopyOf(error);
  } catch (const KeychainTokenStoreError& error) {
    return throwCopyOf(error);
  } catch (const MetadataStoreError& error) {
    return throwCopyOf(error);
  } catch (const SQLiteError& error) {
    return throwCopyOf(error);
  } catch (const PosixError& error) {
    return throwCopyOf(error);
  } catch (const RandomSourceError& error) {
    return throwCopyOf(error);
  } catch (...) {
    return [failure = std::current_exception()] { std::rethrow_exception(failure); };
  }
}

}  // namespace

// Shared with the update streams so that a stream outliving the manager can
// still unsubscribe safely.
struct TokenManager::Shared {
  std::mutex mutex;
  SessionState state = SessionState::signedOut;
  std::optional<AuthServerMetadata> metadata;  // kept after the first successful discovery
  std::shared_ptr<Flight> inFlight;
  std::map<Uuid, std::shared_ptr<SessionUpdates::Channel>> subscribers;
};

// The result of one refresh, awaited by every caller that needs it.
struct TokenManager::Flight {
  std::mutex mutex;
  std::condition_variable_any done;
  bool finished = false;
  std::string accessToken;
  std::function<void()> rethrow;  // set when the refresh failed

  void complete(std::string token, std::function<void()> failure) {
    {
      std::lock_guard lock(mutex);
      finished = true;
      accessToken = std::move(token);
      rethrow = std::move(failure);
    }
    done.notify_all();
  }

  // A cancelled waiter leaves; the refresh itself carries on for the others.
  std::string wait() {
    std::unique_lock lock(mutex);
    done.wait(lock, currentStopToken(), [this] { return finished; });
    if (!finished) throw CancellationError();
    if (rethrow) rethrow();
    return accessToken;
  }
};

TokenManager::TokenManager(std::string baseURL, HTTPTransport& transport, TokenPersisting& tokens,
                           ClientIdProvider clientId)
    : oauth_(std::move(baseURL), transport),
      tokens_(tokens),
      clientId_(std::move(clientId)),
      log_(std::string(AppIdentity::applicationIdentifier), "auth"),
      shared_(std::make_shared<Shared>()) {}

TokenManager::TokenManager(std::string baseURL, HTTPTransport& transport, TokenPersisting& tokens,
                           MetadataStore& metadata)
    : TokenManager(std::move(baseURL), transport, tokens, [&metadata] {
        auto clientId = metadata.metaValue(MetaKey::clientId);
        if (!clientId) throw TokenManagerError::signedOut();
        return *clientId;
      }) {}

TokenManager::~TokenManager() {
  // A refresh still running is stopped through its transfer's stop token.
  if (worker_.joinable()) {
    worker_.request_stop();
    worker_.join();
  }
  std::lock_guard lock(shared_->mutex);
  for (auto& [id, channel] : shared_->subscribers) channel->finish();
  shared_->subscribers.clear();
}

SessionState TokenManager::state() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->state;
}

void TokenManager::setState(SessionState next) {
  std::lock_guard lock(shared_->mutex);
  if (shared_->state == next) return;
  shared_->state = next;
  // Pushing under the lock keeps every stream in publication order.
  for (auto& [id, channel] : shared_->subscribers) channel->push(next);
  log_.info("Session is now %s", next == SessionState::signedIn ? "signed in" : "signed out");
}

SessionUpdates TokenManager::updates() {
  auto channel = std::make_shared<SessionUpdates::Channel>();
  Uuid id = Uuid::random();
  {
    std::lock_guard lock(shared_->mutex);
    shared_->subscribers.emplace(id, channel);
  }
  std::weak_ptr<Shared> weak = shared_;
  return SessionUpdates(channel, [weak, id] {
    if (auto shared = weak.lock()) {
      std::lock_guard lock(shared->mutex);
      shared->subscribers.erase(id);
    }
  });
}

SessionState TokenManager::restoreSession() {
  std::lock_guard store(storeMutex_);
  SessionState restored = tokens_.load() ? SessionState::signedIn : SessionState::signedOut;
  setState(restored);
  return restored;
}

void TokenManager::signIn(const OAuthTokenResponse& response) {
  if (!response.refreshToken) throw TokenManagerError::missingRefreshToken();
  std::lock_guard store(storeMutex_);
  tokens_.save(TokenSet{response.accessToken, *response.refreshToken});
  setState(SessionState::signedIn);
}

void TokenManager::signOut() {
  std::lock_guard store(storeMutex_);
  tokens_.clear();
  ++sessionEnds_;
  setState(SessionState::signedOut);
}

std::string TokenManager::currentAccessToken() {
  auto token = storedAccessToken();
  if (!token) throw TokenManagerError::signedOut();
  return *token;
}

std::optional<std::string> TokenManager::storedAccessToken() {
  std::lock_guard store(storeMutex_);
  auto stored = tokens_.load();
  if (!stored) return std::nullopt;
  return stored->accessToken;
}

void TokenManager::endRejectedSession() {
  log_.error("The server rejected a refreshed access token; signing out");
  std::lock_guard store(storeMutex_);
  tokens_.clear();
  ++sessionEnds_;
  setState(SessionState::signedOut);
}

std::string TokenManager::refreshAfterUnauthorized(std::optional<std::string> rejectedAccessToken) {
  std::shared_ptr<Flight> flight;
  {
    // Deciding under the store lock means a refresh that finishes meanwhile
    // has either saved its tokens (seen below) or is still the flight.
    std::lock_guard store(storeMutex_);
    {
      std::lock_guard lock(shared_->mutex);
      flight = shared_->inFlight;
    }
    if (!flight) {
      if (rejectedAccessToken) {
        auto stored = tokens_.load();
        if (stored && stored->accessToken != *rejectedAccessToken) return stored->accessToken;
      }
      flight = std::make_shared<Flight>();
      {
        std::lock_guard lock(shared_->mutex);
        shared_->inFlight = flight;
      }
      // Replacing the previous worker joins it; it has already cleared its
      // flight, so it only has the completion left to do.
      worker_ = std::jthread([this, flight](std::stop_token stop) {
        CancellationScope scope(std::move(stop));
        runRefresh(*flight);
      });
    }
  }
  return flight->wait();
}

void TokenManager::clearFlight(const Flight& flight) {
  std::lock_guard lock(shared_->mutex);
  if (shared_->inFlight.get() == &flight) shared_->inFlight.reset();
}

void TokenManager::runRefresh(Flight& flight) {
  try {
    std::string token = refreshTokens(flight);
    flight.complete(std::move(token), nullptr);
  } catch (...) {
    clearFlight(flight);
    flight.complete({}, captureFailure());
  }
}

AuthServerMetadata TokenManager::metadata() {
  {
    std::lock_guard lock(shared_->mutex);
    if (shared_->metadata) return *shared_->metadata;
  }
  AuthServerMetadata discovered = oauth_.discover();
  std::lock_guard lock(shared_->mutex);
  shared_->metadata = discovered;
  return discovered;
}

std::string TokenManager::refreshTokens(Flight& flight) {
  TokenSet sent;
  std::uint64_t sessionEnds = 0;
  {
    std::lock_guard store(storeMutex_);
    sessionEnds = sessionEnds_;
    auto stored = tokens_.load();
    if (!stored) {
      setState(SessionState::signedOut);
      clearFlight(flight);
      throw TokenManagerError::signedOut();
    }
    sent = *stored;
  }

  AuthServerMetadata server = metadata();
  std::string clientId = clientId_();

  std::optional<OAuthTokenResponse> response;
  try {
    log_.info("Refreshing the access token");
    response = oauth_.refresh(server, sent.refreshToken, clientId);
  } catch (const OAuthError& error) {
    if (!error.isInvalidGrant()) throw;
    std::lock_guard store(storeMutex_);
    auto current = tokens_.load();
    if (current && current->refreshToken != sent.refreshToken) {
      log_.info("The refresh token was rotated elsewhere; using the stored tokens");
      setState(SessionState::signedIn);
      clearFlight(flight);
      return current->accessToken;
    }
    log_.error("The server rejected the refresh token; signing out");
    tokens_.clear();
    setState(SessionState::signedOut);
    clearFlight(flight);
    throw TokenManagerError::signedOut();
  }

  std::lock_guard store(storeMutex_);
  if (sessionEnds_ != sessionEnds) {
    // The user signed out while the request was out; its tokens belong to a
    // session that is over and must not bring it back.
    clearFlight(flight);
    if (auto current = tokens_.load()) return current->accessToken;
    throw TokenManagerError::signedOut();
  }
  TokenSet next{response->accessToken, response->refreshToken.value_or(sent.refreshToken)};
  tokens_.save(next);
  setState(SessionState::signedIn);
  clearFlight(flight);
  return next.accessToken;
}

}  // namespace synckit
