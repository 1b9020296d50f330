#include "synckit/auth/token_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <latch>
#include <thread>

#include "synckit/auth/oauth_error.h"
#include "synckit/base/cancellation.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/temporary_directory.h"

namespace synckit {
namespace {

using namespace std::chrono_literals;
using testing::FakeHTTPTransport;
using testing::InMemoryTokenStore;

constexpr const char* discoveryURL =
    "https://sync.example.test/.well-known/oauth-authorization-server";
constexpr const char* tokenURL = "https://auth.example.test/token";

HTTPResponse tokenAnswer(const std::string& access, std::optional<std::string> refresh) {
  std::string body =
      R"({"access_token":")" + access + R"(","token_type":"Bearer","expires_in":3600,)";
  if (refresh) body += R"("refresh_token":")" + *refresh + R"(",)";
  return FakeHTTPTransport::json(200, body + R"("scope":"readwrite"})");
}

// A latch-like gate whose wait gives up, so that a broken manager fails the
// test instead of hanging it.
class Gate {
 public:
  void open() {
    {
      std::lock_guard lock(mutex_);
      open_ = true;
    }
    opened_.notify_all();
  }
  bool wait() {
    std::unique_lock lock(mutex_);
    return opened_.wait_for(lock, 10s, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

class TokenManagerTest : public ::testing::Test {
 protected:
  TokenManagerTest() {
    transport.setHandler([this](const HTTPRequest& request) {
      if (request.url == discoveryURL) return discoveryAnswer;
      if (request.url == tokenURL) return tokenEndpoint(request);
      return HTTPResponse{404, {}, {}};
    });
  }

  std::size_t requestsTo(const std::string& url) const {
    std::size_t count = 0;
    for (const auto& request : transport.requests()) count += request.url == url;
    return count;
  }

  // A sync API call that the server accepts only with `valid`.
  auto apiCall(std::string valid) {
    return [this, valid] {
      std::string token = manager->currentAccessToken();
      if (token != valid) throw SyncAPIError(401, "UNAUTHORIZED", "Token expired");
      return token;
    };
  }

  FakeHTTPTransport transport;
  InMemoryTokenStore store;
  HTTPResponse discoveryAnswer =
      FakeHTTPTransport::json(200, R"({"issuer":"https://auth.example.test",
    "authorization_endpoint":"https://auth.example.test/authorize",
    "token_endpoint":"https://auth.example.test/token",
    "registration_endpoint":"https://auth.example.test/register"})");
  std::function<HTTPResponse(const HTTPRequest&)> tokenEndpoint = [](const HTTPRequest&) {
    return tokenAnswer("fresh", "r2");
  };
  std::function<std::string()> clientId = [] { return std::string("client-1"); };
  std::unique_ptr<TokenManager> manager = std::make_unique<TokenManager>(
      "https://sync.example.test", transport, store, [this] { return clientId(); });
};

TEST_F(TokenManagerTest, ObserversSeeEachChangeOnceAndNoReplay) {
  SessionUpdates early = manager->updates();
  EXPECT_EQ(manager->restoreSession(), SessionState::signedOut);
  EXPECT_EQ(early.tryNext(), std::nullopt);

  try {
    manager->signIn(OAuthTokenResponse{"a1", "Bearer", 60, std::nullopt, "readwrite"});
    FAIL() << "signed in without a refresh token";
  } catch (const TokenManagerError& error) {
    EXPECT_EQ(error, TokenManagerError::missingRefreshToken());
    EXPECT_STREQ(error.what(), "The server did not return a refresh token.");
  }
  EXPECT_EQ(store.saveCount(), 0);
  EXPECT_EQ(manager->state(), SessionState::signedOut);

  manager->signIn(OAuthTokenResponse{"a1", "Bearer", 60, "r1", "readwrite"});
  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));
  EXPECT_EQ(early.next(1s), SessionState::signedIn);

  SessionUpdates late = manager->updates();
  EXPECT_EQ(manager->restoreSession(), SessionState::signedIn);
  EXPECT_EQ(manager->currentAccessToken(), "a1");
  EXPECT_EQ(late.tryNext(), std::nullopt);
  EXPECT_EQ(early.tryNext(), std::nullopt);

  store.fail(InMemoryTokenStore::Operation::clear, InMemoryTokenStore::defaultFailure(), 1);
  EXPECT_THROW(manager->signOut(), KeychainTokenStoreError);
  EXPECT_EQ(manager->state(), SessionState::signedIn);

  manager->signOut();
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(early.next(1s), SessionState::signedOut);
  EXPECT_EQ(late.next(1s), SessionState::signedOut);
  EXPECT_EQ(late.tryNext(), std::nullopt);
  try {
    manager->currentAccessToken();
    FAIL() << "a token without a session";
  } catch (const TokenManagerError& error) {
    EXPECT_STREQ(error.what(), "Signed out of Halvark. Sign in again to continue.");
  }

  store.save(TokenSet{"a2", "r2"});
  store.fail(InMemoryTokenStore::Operation::load, InMemoryTokenStore::defaultFailure(), 1);
  EXPECT_THROW(manager->restoreSession(), KeychainTokenStoreError);
  EXPECT_EQ(manager->state(), SessionState::signedOut);

  manager.reset();
  EXPECT_EQ(early.next(), std::nullopt);
}

TEST_F(TokenManagerTest, WaitingForAnUpdateIsCancellable) {
  SessionUpdates updates = manager->updates();
  std::atomic<bool> cancelled = false;
  std::jthread reader([&](std::stop_token stop) {
    CancellationScope scope(stop);
    try {
      updates.next();
    } catch (const CancellationError&) {
      cancelled = true;
    }
  });
  std::this_thread::sleep_for(20ms);
  reader.request_stop();
  reader.join();
  EXPECT_TRUE(cancelled);
}

TEST_F(TokenManagerTest, ConcurrentRejectedCallsShareOneRefresh) {
  store.save(TokenSet{"stale", "r1"});
  manager->restoreSession();
  constexpr int callers = 8;
  std::latch allRejected(callers);
  tokenEndpoint = [&](const HTTPRequest&) {
    // Answer only once every caller has seen its 401, so all of them are
    // after the token while this refresh is outstanding.
    for (auto deadline = std::chrono::steady_clock::now() + 10s;
         !allRejected.try_wait() && std::chrono::steady_clock::now() < deadline;) {
      std::this_thread::sleep_for(1ms);
    }
    return tokenAnswer("fresh", "r2");
  };

  std::vector<std::string> results(callers);
  std::atomic<int> attempts = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < callers; ++i) {
      threads.emplace_back([&, i] {
        results[i] = manager->withAuthRetry([&] {
          ++attempts;
          std::string token = manager->currentAccessToken();
          if (token != "fresh") {
            allRejected.count_down();
            throw SyncAPIError(401, "UNAUTHORIZED", "Token expired");
          }
          return token;
        });
      });
    }
  }
  EXPECT_EQ(requestsTo(tokenURL), 1u);
  EXPECT_EQ(requestsTo(discoveryURL), 1u);
  EXPECT_EQ(attempts, 2 * callers);
  for (const auto& result : results) EXPECT_EQ(result, "fresh");
  EXPECT_EQ(store.stored(), (TokenSet{"fresh", "r2"}));
}

TEST_F(TokenManagerTest, RejectionAfterSomebodyElseRefreshedUsesTheStoredToken) {
  store.save(TokenSet{"old", "r1"});
  bool first = true;
  std::string result = manager->withAuthRetry([&] {
    std::string token = manager->currentAccessToken();
    if (first) {
      // Another process refreshes while this request is on the wire.
      first = false;
      store.save(TokenSet{"new", "r2"});
    }
    if (token != "new") throw SyncAPIError(401, "UNAUTHORIZED", "Token expired");
    return token;
  });
  EXPECT_EQ(result, "new");
  EXPECT_EQ(transport.requestCount(), 0u);
  EXPECT_EQ(manager->refreshAfterUnauthorized("old"), "new");
  EXPECT_EQ(transport.requestCount(), 0u);
}

TEST_F(TokenManagerTest, InvalidGrantSignsOutUnlessTheTokensWereRotatedElsewhere) {
  store.save(TokenSet{"a1", "r1"});
  manager->restoreSession();
  SessionUpdates updates = manager->updates();
  tokenEndpoint = [&](const HTTPRequest&) {
    store.save(TokenSet{"a2", "r2"});  // the other process won the race
    return FakeHTTPTransport::json(400, R"({"error":"invalid_grant"})");
  };
  EXPECT_EQ(manager->refreshAfterUnauthorized(), "a2");
  EXPECT_EQ(manager->state(), SessionState::signedIn);
  EXPECT_EQ(store.stored(), (TokenSet{"a2", "r2"}));

  tokenEndpoint = [](const HTTPRequest&) {
    return FakeHTTPTransport::json(400, R"({"error":"invalid_grant","error_description":"used"})");
  };
  EXPECT_THROW(
      {
        try {
          manager->refreshAfterUnauthorized("a2");
        } catch (const TokenManagerError& error) {
          EXPECT_EQ(error, TokenManagerError::signedOut());
          throw;
        }
      },
      TokenManagerError);
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(manager->state(), SessionState::signedOut);
  EXPECT_EQ(updates.tryNext(), SessionState::signedOut);
  EXPECT_EQ(updates.tryNext(), std::nullopt);
}

TEST_F(TokenManagerTest, SecondRejectionEndsTheSessionAndOtherFailuresPassThrough) {
  store.save(TokenSet{"a1", "r1"});
  manager->restoreSession();
  int runs = 0;
  EXPECT_THROW(manager->withAuthRetry([&]() -> int {
    ++runs;
    throw SyncAPIError(401, "UNAUTHORIZED", "no");
  }),
               TokenManagerError);
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(requestsTo(tokenURL), 1u);
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(manager->state(), SessionState::signedOut);

  store.save(TokenSet{"a1", "r1"});
  runs = 0;
  EXPECT_THROW(manager->withAuthRetry([&] {
    ++runs;
    throw SyncAPIError(403, "FORBIDDEN", "revoked");
  }),
               SyncAPIError);
  EXPECT_EQ(runs, 1);

  // A store that cannot be read stops the call before it is made.
  store.fail(InMemoryTokenStore::Operation::load, InMemoryTokenStore::defaultFailure(), 1);
  EXPECT_THROW(manager->withAuthRetry([&] { ++runs; }), KeychainTokenStoreError);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(requestsTo(tokenURL), 1u);
}

TEST_F(TokenManagerTest, RefreshWithAnEmptyStoreSignsOutWithoutAsking) {
  store.save(TokenSet{"a1", "r1"});
  manager->restoreSession();
  store.clear();
  SessionUpdates updates = manager->updates();
  EXPECT_THROW(manager->refreshAfterUnauthorized(), TokenManagerError);
  EXPECT_EQ(transport.requestCount(), 0u);
  EXPECT_EQ(updates.tryNext(), SessionState::signedOut);
  EXPECT_THROW(manager->refreshAfterUnauthorized("a1"), TokenManagerError);
  EXPECT_EQ(updates.tryNext(), std::nullopt);
  EXPECT_EQ(transport.requestCount(), 0u);
}

TEST_F(TokenManagerTest, RefreshKeepsTheOldRefreshTokenAndCachesOnlySuccessfulDiscovery) {
  store.save(TokenSet{"a1", "r1"});
  discoveryAnswer = HTTPResponse{503, {}, toBytes("maintenance")};
  try {
    manager->refreshAfterUnauthorized();
    FAIL() << "refreshed without metadata";
  } catch (const OAuthError& error) {
    EXPECT_EQ(error, OAuthError(503, "unknown", "maintenance"));
  }
  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));
  EXPECT_EQ(manager->state(), SessionState::signedOut);

  discoveryAnswer.status = 200;
  discoveryAnswer.body =
      toBytes(R"({"issuer":"i","authorization_endpoint":"https://auth.example.test/a",
    "token_endpoint":"https://auth.example.test/token","registration_endpoint":"https://auth.example.test/r"})");
  tokenEndpoint = [](const HTTPRequest&) { return tokenAnswer("a2", std::nullopt); };
  EXPECT_EQ(manager->refreshAfterUnauthorized(), "a2");
  EXPECT_EQ(store.stored(), (TokenSet{"a2", "r1"}));
  EXPECT_EQ(manager->state(), SessionState::signedIn);

  tokenEndpoint = [](const HTTPRequest&) { return tokenAnswer("a3", "r3"); };
  EXPECT_EQ(manager->refreshAfterUnauthorized("a2"), "a3");
  EXPECT_EQ(store.stored(), (TokenSet{"a3", "r3"}));
  EXPECT_EQ(requestsTo(discoveryURL), 2u);
  auto requests = transport.requests();
  EXPECT_EQ(toString(requests.back().body),
            "grant_type=refresh_token&client_id=client-1&refresh_token=r1");
}

TEST_F(TokenManagerTest, TransientFailuresLeaveTheSessionAsItWas) {
  store.save(TokenSet{"a1", "r1"});
  manager->restoreSession();
  SessionUpdates updates = manager->updates();

  clientId = []() -> std::string { throw TokenManagerError::signedOut(); };
  EXPECT_THROW(manager->refreshAfterUnauthorized(), TokenManagerError);
  clientId = [] { return std::string("client-1"); };

  tokenEndpoint = [](const HTTPRequest&) { return FakeHTTPTransport::json(500, "{}"); };
  EXPECT_THROW(manager->refreshAfterUnauthorized(), OAuthError);
  tokenEndpoint = [](const HTTPRequest&) -> HTTPResponse {
    throw TransportError(TransportError::Kind::timedOut, "");
  };
  EXPECT_THROW(manager->refreshAfterUnauthorized(), TransportError);

  store.fail(InMemoryTokenStore::Operation::save, InMemoryTokenStore::defaultFailure(), 1);
  tokenEndpoint = [](const HTTPRequest&) { return tokenAnswer("a2", "r2"); };
  EXPECT_THROW(manager->refreshAfterUnauthorized(), KeychainTokenStoreError);

  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));
  EXPECT_EQ(manager->state(), SessionState::signedIn);
  EXPECT_EQ(updates.tryNext(), std::nullopt);
  EXPECT_EQ(manager->refreshAfterUnauthorized(), "a2");
}

TEST_F(TokenManagerTest, SigningOutDuringARefreshIsFinal) {
  store.save(TokenSet{"a1", "r1"});
  manager->restoreSession();
  tokenEndpoint = [&](const HTTPRequest&) {
    manager->signOut();
    return tokenAnswer("a2", "r2");
  };
  EXPECT_THROW(manager->refreshAfterUnauthorized("a1"), TokenManagerError);
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(manager->state(), SessionState::signedOut);

  // Signed in again meanwhile: the new session's token wins over the old one's refresh.
  store.save(TokenSet{"a1", "r1"});
  tokenEndpoint = [&](const HTTPRequest&) {
    manager->signOut();
    manager->signIn(OAuthTokenResponse{"b1", "Bearer", 60, "s1", "readwrite"});
    return tokenAnswer("a2", "r2");
  };
  EXPECT_EQ(manager->refreshAfterUnauthorized("a1"), "b1");
  EXPECT_EQ(store.stored(), (TokenSet{"b1", "s1"}));
  EXPECT_EQ(manager->state(), SessionState::signedIn);
}

TEST_F(TokenManagerTest, TheStoreBackedManagerReadsTheClientIdFromTheMetaTable) {
  testing::TemporaryDirectory directory;
  MetadataStore metadataStore(directory / "sync.sqlite");
  TokenManager stored("https://sync.example.test", transport, store, metadataStore);
  store.save(TokenSet{"a1", "r1"});
  EXPECT_EQ(stored.restoreSession(), SessionState::signedIn);

  // Without a registered client the refresh cannot be made, but the session
  // is not thrown away either.
  EXPECT_THROW(stored.refreshAfterUnauthorized(), TokenManagerError);
  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));
  EXPECT_EQ(stored.state(), SessionState::signedIn);
  EXPECT_EQ(requestsTo(tokenURL), 0u);

  metadataStore.setMeta(MetaKey::clientId, "registered-client");
  EXPECT_EQ(stored.refreshAfterUnauthorized(), "fresh");
  EXPECT_EQ(toString(transport.requests().back().body),
            "grant_type=refresh_token&client_id=registered-client&refresh_token=r1");
}

TEST_F(TokenManagerTest, ACancelledWaiterLeavesWhileTheRefreshGoesOn) {
  store.save(TokenSet{"a1", "r1"});
  Gate answer;
  std::latch asked(1);
  tokenEndpoint = [&](const HTTPRequest&) {
    asked.count_down();
    answer.wait();
    return tokenAnswer("a2", "r2");
  };

  std::atomic<bool> cancelled = false;
  std::jthread impatient([&](std::stop_token stop) {
    CancellationScope scope(stop);
    try {
      manager->refreshAfterUnauthorized("a1");
    } catch (const CancellationError&) {
      cancelled = true;
    }
  });
  std::string patientResult;
  std::jthread patient([&] { patientResult = manager->refreshAfterUnauthorized("a1"); });

  asked.wait();
  impatient.request_stop();
  impatient.join();
  EXPECT_TRUE(cancelled);
  answer.open();
  patient.join();
  EXPECT_EQ(patientResult, "a2");
  EXPECT_EQ(requestsTo(tokenURL), 1u);
}

}  // namespace
}  // namespace synckit
