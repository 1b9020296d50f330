#include "synckit/auth/token_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <thread>

#include "synckit/auth/oauth_error.h"
#include "synckit/base/cancellation.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using namespace std::chrono_literals;
using testing::FakeHTTPTransport;
using testing::InMemoryTokenStore;
using Op = InMemoryTokenStore::Operation;
using testing::thrownBy;

constexpr const char* discoveryURL =
    "https://sync.example.test/.well-known/oauth-authorization-server";
constexpr const char* tokenURL = "https://auth.example.test/token";

HTTPResponse tokenAnswer(const std::string& access, std::optional<std::string> refresh) {
  std::string body =
      R"({"access_token":")" + access + R"(","token_type":"Bearer","expires_in":3600,)";
  if (refresh) body += R"("refresh_token":")" + *refresh + R"(",)";
  return FakeHTTPTransport::json(200, body + R"("scope":"readwrite"})");
}

OAuthTokenResponse signInAnswer(std::string access, std::optional<std::string> refresh) {
  return OAuthTokenResponse{std::move(access), "Bearer", 60, std::move(refresh), "readwrite"};
}

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

  void signedInAs(TokenSet tokens) {
    store.save(tokens);
    manager->restoreSession();
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

  auto missing = thrownBy<TokenManagerError>([&] { manager->signIn(signInAnswer("a1", {})); });
  EXPECT_EQ(missing, TokenManagerError::missingRefreshToken());
  EXPECT_STREQ(missing.what(), "The server did not return a refresh token.");
  EXPECT_EQ(store.saveCount(), 0);

  manager->signIn(signInAnswer("a1", "r1"));
  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));
  EXPECT_EQ(early.next(1s), SessionState::signedIn);

  SessionUpdates late = manager->updates();
  EXPECT_EQ(manager->restoreSession(), SessionState::signedIn);
  EXPECT_EQ(manager->currentAccessToken(), "a1");
  EXPECT_EQ(late.tryNext(), std::nullopt);
  EXPECT_EQ(early.tryNext(), std::nullopt);

  // A store that will not clear leaves the user signed in.
  store.fail(Op::clear, InMemoryTokenStore::defaultFailure(), 1);
  EXPECT_THROW(manager->signOut(), KeychainTokenStoreError);
  EXPECT_EQ(manager->state(), SessionState::signedIn);

  manager->signOut();
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(early.next(1s), SessionState::signedOut);
  EXPECT_EQ(late.next(1s), SessionState::signedOut);
  EXPECT_EQ(late.tryNext(), std::nullopt);
  EXPECT_STREQ(thrownBy<TokenManagerError>([&] { manager->currentAccessToken(); }).what(),
               "Signed out of Halvark. Sign in again to continue.");

  manager.reset();
  EXPECT_EQ(early.next(), std::nullopt);
}

TEST_F(TokenManagerTest, ConcurrentRejectedCallsShareOneRefresh) {
  signedInAs({"stale", "r1"});
  constexpr int callers = 8;
  std::latch allRejected(callers);
  tokenEndpoint = [&](const HTTPRequest&) {
    // Answer only once every caller has had its 401, so that all of them
    // want a token while this refresh is outstanding.
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
          if (token == "fresh") return token;
          allRejected.count_down();
          throw SyncAPIError(401, "UNAUTHORIZED", "Token expired");
        });
      });
    }
  }
  EXPECT_EQ(requestsTo(tokenURL), 1u);
  EXPECT_EQ(requestsTo(discoveryURL), 1u);
  EXPECT_EQ(attempts, 2 * callers);
  EXPECT_EQ(results, std::vector<std::string>(callers, "fresh"));
  EXPECT_EQ(store.stored(), (TokenSet{"fresh", "r2"}));
}

TEST_F(TokenManagerTest, RejectionAfterSomebodyElseRefreshedUsesTheStoredToken) {
  store.save(TokenSet{"old", "r1"});
  bool first = true;
  std::string result = manager->withAuthRetry([&] {
    std::string token = manager->currentAccessToken();
    if (std::exchange(first, false)) store.save(TokenSet{"new", "r2"});  // another process
    if (token != "new") throw SyncAPIError(401, "UNAUTHORIZED", "Token expired");
    return token;
  });
  EXPECT_EQ(result, "new");
  EXPECT_EQ(manager->refreshAfterUnauthorized("old"), "new");
  EXPECT_EQ(transport.requestCount(), 0u);
}

TEST_F(TokenManagerTest, InvalidGrantSignsOutUnlessTheTokensWereRotatedElsewhere) {
  signedInAs({"a1", "r1"});
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
  EXPECT_EQ(thrownBy<TokenManagerError>([&] { manager->refreshAfterUnauthorized("a2"); }),
            TokenManagerError::signedOut());
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(updates.tryNext(), SessionState::signedOut);
  EXPECT_EQ(updates.tryNext(), std::nullopt);
}

TEST_F(TokenManagerTest, SecondRejectionEndsTheSessionAndOtherFailuresPassThrough) {
  signedInAs({"a1", "r1"});
  int runs = 0;
  auto rejectedWith = [&](int status) {
    return [&runs, status]() -> int {
      ++runs;
      throw SyncAPIError(status, "X", "no");
    };
  };
  EXPECT_THROW(manager->withAuthRetry(rejectedWith(401)), TokenManagerError);
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(requestsTo(tokenURL), 1u);
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(manager->state(), SessionState::signedOut);

  store.save(TokenSet{"a1", "r1"});
  EXPECT_THROW(manager->withAuthRetry(rejectedWith(403)), SyncAPIError);
  EXPECT_EQ(runs, 3);
  // A store that cannot be read stops the call before it is made.
  store.fail(Op::load, InMemoryTokenStore::defaultFailure(), 1);
  EXPECT_THROW(manager->withAuthRetry(rejectedWith(500)), KeychainTokenStoreError);
  EXPECT_EQ(runs, 3);
}

TEST_F(TokenManagerTest, RefreshWithAnEmptyStoreSignsOutWithoutAsking) {
  signedInAs({"a1", "r1"});
  store.clear();
  SessionUpdates updates = manager->updates();
  EXPECT_THROW(manager->refreshAfterUnauthorized(), TokenManagerError);
  EXPECT_EQ(updates.tryNext(), SessionState::signedOut);
  EXPECT_THROW(manager->refreshAfterUnauthorized("a1"), TokenManagerError);
  EXPECT_EQ(updates.tryNext(), std::nullopt);
  EXPECT_EQ(transport.requestCount(), 0u);
}

TEST_F(TokenManagerTest, RefreshKeepsTheOldRefreshTokenAndCachesOnlySuccessfulDiscovery) {
  store.save(TokenSet{"a1", "r1"});
  HTTPResponse metadata = std::exchange(discoveryAnswer, HTTPResponse{503, {}, toBytes("down")});
  EXPECT_EQ(thrownBy<OAuthError>([&] { manager->refreshAfterUnauthorized(); }),
            OAuthError(503, "unknown", "down"));
  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));

  discoveryAnswer = metadata;
  tokenEndpoint = [](const HTTPRequest&) { return tokenAnswer("a2", std::nullopt); };
  EXPECT_EQ(manager->refreshAfterUnauthorized(), "a2");
  EXPECT_EQ(store.stored(), (TokenSet{"a2", "r1"}));
  EXPECT_EQ(manager->state(), SessionState::signedIn);

  tokenEndpoint = [](const HTTPRequest&) { return tokenAnswer("a3", "r3"); };
  EXPECT_EQ(manager->refreshAfterUnauthorized("a2"), "a3");
  EXPECT_EQ(store.stored(), (TokenSet{"a3", "r3"}));
  EXPECT_EQ(requestsTo(discoveryURL), 2u);
  EXPECT_EQ(toString(transport.requests().back().body),
            "grant_type=refresh_token&client_id=client-1&refresh_token=r1");
}

TEST_F(TokenManagerTest, TransientFailuresLeaveTheSessionAsItWas) {
  signedInAs({"a1", "r1"});
  SessionUpdates updates = manager->updates();

  clientId = []() -> std::string { throw TokenManagerError::signedOut(); };
  EXPECT_THROW(manager->refreshAfterUnauthorized(), TokenManagerError);
  clientId = [] { return std::string("client-1"); };
  tokenEndpoint = [](const HTTPRequest&) -> HTTPResponse {
    throw TransportError(TransportError::Kind::timedOut, "");
  };
  EXPECT_THROW(manager->refreshAfterUnauthorized(), TransportError);
  store.fail(Op::save, InMemoryTokenStore::defaultFailure(), 1);
  tokenEndpoint = [](const HTTPRequest&) { return tokenAnswer("a2", "r2"); };
  EXPECT_THROW(manager->refreshAfterUnauthorized(), KeychainTokenStoreError);

  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));
  EXPECT_EQ(updates.tryNext(), std::nullopt);
  EXPECT_EQ(manager->refreshAfterUnauthorized(), "a2");
}

TEST_F(TokenManagerTest, SigningOutDuringARefreshIsFinal) {
  signedInAs({"a1", "r1"});
  tokenEndpoint = [&](const HTTPRequest&) {
    manager->signOut();
    return tokenAnswer("a2", "r2");
  };
  EXPECT_THROW(manager->refreshAfterUnauthorized("a1"), TokenManagerError);
  EXPECT_EQ(store.stored(), std::nullopt);
  EXPECT_EQ(manager->state(), SessionState::signedOut);

  // Signed in again meanwhile: the new session wins over the old one's refresh.
  store.save(TokenSet{"a1", "r1"});
  tokenEndpoint = [&](const HTTPRequest&) {
    manager->signOut();
    manager->signIn(signInAnswer("b1", "s1"));
    return tokenAnswer("a2", "r2");
  };
  EXPECT_EQ(manager->refreshAfterUnauthorized("a1"), "b1");
  EXPECT_EQ(store.stored(), (TokenSet{"b1", "s1"}));
}

TEST_F(TokenManagerTest, TheStoreBackedManagerReadsTheClientIdFromTheMetaTable) {
  testing::TemporaryDirectory directory;
  MetadataStore metadataStore(directory / "sync.sqlite");
  TokenManager stored("https://sync.example.test", transport, store, metadataStore);
  store.save(TokenSet{"a1", "r1"});
  EXPECT_EQ(stored.restoreSession(), SessionState::signedIn);

  // Without a registered client there is no refresh, but the session stays.
  EXPECT_THROW(stored.refreshAfterUnauthorized(), TokenManagerError);
  EXPECT_EQ(store.stored(), (TokenSet{"a1", "r1"}));
  EXPECT_EQ(stored.state(), SessionState::signedIn);

  metadataStore.setMeta(MetaKey::clientId, "registered-client");
  EXPECT_EQ(stored.refreshAfterUnauthorized(), "fresh");
  EXPECT_EQ(toString(transport.requests().back().body),
            "grant_type=refresh_token&client_id=registered-client&refresh_token=r1");
}

TEST_F(TokenManagerTest, CancelledWaitsLeaveWithoutDisturbingOthers) {
  store.save(TokenSet{"a1", "r1"});
  std::promise<void> answer;
  std::shared_future<void> answered = answer.get_future().share();
  std::latch asked(1);
  tokenEndpoint = [&](const HTTPRequest&) {
    asked.count_down();
    answered.wait_for(10s);
    return tokenAnswer("a2", "r2");
  };
  SessionUpdates updates = manager->updates();

  std::atomic<int> cancelled = 0;
  std::jthread impatient([&](std::stop_token stop) {
    CancellationScope scope(stop);
    try {
      manager->refreshAfterUnauthorized("a1");
    } catch (const CancellationError&) {
      ++cancelled;
    }
    try {
      updates.next();
    } catch (const CancellationError&) {
      ++cancelled;
    }
  });
  std::string patientResult;
  std::jthread patient([&] { patientResult = manager->refreshAfterUnauthorized("a1"); });

  asked.wait();
  impatient.request_stop();
  impatient.join();
  EXPECT_EQ(cancelled, 2);
  answer.set_value();
  patient.join();
  EXPECT_EQ(patientResult, "a2");
  EXPECT_EQ(requestsTo(tokenURL), 1u);
}

}  // namespace
}  // namespace synckit
