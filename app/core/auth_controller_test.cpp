#include "app/core/auth_controller.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <mutex>

#include "app/core/run_loop.h"
#include "app/core/testing/fake_web_authenticator.h"
#include "synckit/auth/token_manager.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace halvark {
namespace {

using synckit::HTTPRequest;
using synckit::HTTPResponse;
using synckit::MetaKey::clientId;
using synckit::MetaKey::deviceId;
using synckit::MetaKey::deviceName;
using synckit::testing::FakeHTTPTransport;
using testing::FakeWebAuthenticator;

constexpr const char* base = "https://sync.example.test";
constexpr const char* mismatch = "Sign-in response did not match the request. Please try again.";

// The authorization server and the device endpoint; an endpoint's answer can
// be replaced by a test.
class FakeService {
 public:
  HTTPResponse answer(const HTTPRequest& request) {
    std::lock_guard lock(mutex_);
    const std::string path = request.url.substr(request.url.find('/', 8));
    if (auto override = overrides_.find(path); override != overrides_.end()) {
      return override->second;
    }
    if (path == "/.well-known/oauth-authorization-server") {
      return FakeHTTPTransport::json(200, R"({"issuer":"https://sync.example.test",
        "authorization_endpoint":"https://sync.example.test/authorize",
        "token_endpoint":"https://sync.example.test/token",
        "registration_endpoint":"https://sync.example.test/register"})");
    }
    if (path == "/register") {
      return FakeHTTPTransport::json(201,
                                     R"({"client_id":"client-1","client_name":"Halvark Desktop",
        "redirect_uris":["halvark://oauth/callback"],"token_endpoint_auth_method":"none",
        "grant_types":["authorization_code","refresh_token"],"response_types":["code"]})");
    }
    if (path == "/token") {
      return FakeHTTPTransport::json(200, R"({"access_token":"access-1","token_type":"Bearer",
        "expires_in":3600,"refresh_token":"refresh-1","scope":"readwrite"})");
    }
    if (path == "/api/sync/devices") {
      return FakeHTTPTransport::json(201, R"({"device":{"id":"device-1","name":"Box-2",
        "platform":"linux","createdAt":"2025-03-01T09:30:12.345Z"
    }
  })");
    }
    return HTTPResponse{404, {}, {}};
  }

  void answer(const std::string& path, HTTPResponse response) {
    std::lock_guard lock(mutex_);
    overrides_[path] = std::move(response);
  }

 private:
  std::mutex mutex_;
  std::map<std::string, HTTPResponse> overrides_;
};

// The callback of a service that approved the request, with `extra` query
// items after the code and the request's own state.
FakeWebAuthenticator::Responder approving(std::string extra = {}) {
  return [extra](const std::string& url) {
    return "halvark://oauth/callback?code=code-1&state=" +
           FakeWebAuthenticator::queryValue(url, "state") + extra;
  };
}

class AuthControllerTest : public ::testing::Test {
 protected:
  AuthControllerTest() {
    transport.setHandler([this](const HTTPRequest& request) { return service.answer(request); });
  }

  // Signs in and runs the main queue until the attempt has ended.
  void signIn() {
    controller.signIn();
    ASSERT_EQ(state.session(), Session::signingIn());
    ASSERT_TRUE(loop.runUntil([&] { return state.session() != Session::signingIn(); },
                              std::chrono::seconds(10)));
  }

  std::vector<std::string> requestedPaths() const {
    std::vector<std::string> paths;
    for (const HTTPRequest& request : transport.requests()) {
      paths.push_back(request.url.substr(std::string(base).size()));
    }
    return paths;
  }

  synckit::testing::TemporaryDirectory directory;
  std::unique_ptr<synckit::MetadataStore> store =
      synckit::MetadataStore::open(directory / "sync.sqlite");
  FakeService service;
  FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens;
  synckit::TokenManager tokenManager{base, transport, tokens, *store};
  RunLoop loop;
  AppState state{tokenManager, [this] { return store->metaValue(deviceName).value_or("?"); }, loop};
  FakeWebAuthenticator authenticator;
  AuthController controller{state,        tokenManager,  base, transport, store.get(),
                            std::nullopt, authenticator, loop, "Box"};
};

TEST_F(AuthControllerTest, SignInRegistersClientAndDeviceOnceAndSignOutKeepsThem) {
  authenticator.respondWith(approving());
  signIn();

  EXPECT_EQ(state.session(), Session::signedIn("Box-2"));
  EXPECT_EQ(state.errorMessage(), std::nullopt);
  EXPECT_EQ(tokens.stored(), (synckit::TokenSet{"access-1", "refresh-1"}));
  EXPECT_EQ(store->metaValue(clientId), "client-1");
  EXPECT_EQ(store->metaValue(deviceId), "device-1");
  EXPECT_EQ(requestedPaths(),
            (std::vector<std::string>{"/.well-known/oauth-authorization-server", "/register",
                                      "/token", "/api/sync/devices"}));
  const std::vector<HTTPRequest> requests = transport.requests();
  EXPECT_NE(synckit::toString(requests[3].body).find(R"("platform":"linux")"), std::string::npos);
  EXPECT_NE(synckit::toString(requests[3].body).find(R"("name":"Box")"), std::string::npos);

  const std::string url = authenticator.urls().at(0);
  const std::string stateValue = FakeWebAuthenticator::queryValue(url, "state");
  EXPECT_EQ(stateValue.size(), 43u);
  EXPECT_EQ(stateValue.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
            std::string::npos);
  EXPECT_EQ(FakeWebAuthenticator::queryValue(url, "client_id"), "client-1");
  EXPECT_EQ(FakeWebAuthenticator::queryValue(url, "resource"), base);
  EXPECT_EQ(FakeWebAuthenticator::queryValue(url, "scope"), "readwrite");
  EXPECT_EQ(authenticator.callbackSchemes().at(0), "halvark");
  const std::string tokenBody = synckit::toString(requests[2].body);
  EXPECT_NE(tokenBody.find("code=code-1"), std::string::npos);
  EXPECT_NE(tokenBody.find("code_verifier="), std::string::npos);

  controller.signOut();
  ASSERT_TRUE(loop.runUntil([&] { return state.session() == Session::signedOut(); },
                            std::chrono::seconds(10)));
  EXPECT_EQ(tokens.stored(), std::nullopt);
  EXPECT_EQ(store->metaValue(clientId), "client-1");
  EXPECT_EQ(store->metaValue(deviceId), "device-1");

  // With both ids stored only discovery and the token request go out.
  signIn();
  EXPECT_EQ(state.session(), Session::signedIn("Box-2"));
  EXPECT_EQ(requestedPaths().size(), 6u);
  EXPECT_EQ(requestedPaths()[5], "/token");
  EXPECT_NE(FakeWebAuthenticator::queryValue(authenticator.urls().at(1), "state"), stateValue);
}

TEST_F(AuthControllerTest, CallbackProblemsEndTheAttemptWithTheirMessageOrSilently) {
  const std::vector<std::pair<FakeWebAuthenticator::Responder, std::optional<std::string>>> cases =
      {
          {[](const std::string&) { return "halvark://oauth/callback?error=access_denied"; },
           std::nullopt},
          {[](const std::string&) {
             return "halvark://oauth/callback?error=server_error&error_description=Try%20later";
           },
           "Sign-in failed: Try later"},
          {[](const std::string&) { return "halvark://oauth/callback?error=server_error"; },
           "Sign-in failed: server_error"},
          {[](const std::string& url) {
             std::string upper = FakeWebAuthenticator::queryValue(url, "state");
             for (char& c : upper) c = static_cast<char>(std::toupper(c));
             if (upper == FakeWebAuthenticator::queryValue(url, "state")) upper += "x";
             return "halvark://oauth/callback?code=c&state=" + upper;
           },
           mismatch},
          {[](const std::string&) { return "halvark://oauth/callback"; }, mismatch},
          {approving("&code="), "Sign-in response had no authorization code."},
          {[](const std::string&) -> std::string { throw WebAuthenticatorError::couldNotStart(); },
           "Could not open the sign-in window."},
      };
  for (std::size_t index = 0; index < cases.size(); ++index) {
    SCOPED_TRACE(index);
    state.setErrorMessage("an earlier problem");
    authenticator.respondWith(cases[index].first);
    signIn();
    EXPECT_EQ(state.session(), Session::signedOut());
    EXPECT_EQ(state.errorMessage(), cases[index].second);
  }
  EXPECT_EQ(tokens.saveCount(), 0);
  for (const std::string& path : requestedPaths()) EXPECT_NE(path, "/token");

  // Closing the browser wait ends the attempt silently; a second sign-in
  // meanwhile opens nothing more.
  authenticator.respondWith({});
  const std::size_t opened = authenticator.urls().size();
  controller.signIn();
  ASSERT_TRUE(authenticator.waitForURLs(opened + 1));
  controller.signIn();
  controller.cancelSignIn();
  ASSERT_TRUE(loop.runUntil([&] { return state.session() == Session::signedOut(); },
                            std::chrono::seconds(10)));
  EXPECT_EQ(state.errorMessage(), std::nullopt);
  EXPECT_EQ(authenticator.urls().size(), opened + 1);
}

TEST(AuthControllerCallbackTest, ItemsLaterWinAndAnItemWithoutValueRemovesItsName) {
  EXPECT_EQ(AuthController::parseCallback("halvark://oauth/callback?code=a&state=s&code=b", "s"),
            "b");
  auto failure = synckit::testing::thrownBy<AuthFailure>(
      [] { AuthController::parseCallback("halvark://oauth/callback?code=a&state=s&code", "s"); });
  EXPECT_EQ(failure.kind(), AuthFailure::Kind::missingCode);
  failure = synckit::testing::thrownBy<AuthFailure>(
      [] { AuthController::parseCallback("halvark://oauth/callback?state", "s"); });
  EXPECT_EQ(failure.kind(), AuthFailure::Kind::stateMismatch);
}

TEST_F(AuthControllerTest, FailuresAfterTheExchangeLeaveNoTokensAndTellWhy) {
  authenticator.respondWith(approving());
  service.answer("/api/sync/devices",
                 FakeHTTPTransport::json(500, R"({"error":{"code":"INTERNAL","message":"down"}})"));
  signIn();
  EXPECT_EQ(state.session(), Session::signedOut());
  EXPECT_EQ(state.errorMessage(), "Sync API error 500 INTERNAL: down");
  EXPECT_EQ(tokens.saveCount(), 1);
  EXPECT_EQ(tokens.stored(), std::nullopt);
  EXPECT_EQ(store->metaValue(deviceId), std::nullopt);
  EXPECT_EQ(store->metaValue(clientId), "client-1");

  // An OAuth error shows the server's description, or its own text without one.
  service.answer("/token", FakeHTTPTransport::json(
                               400, R"({"error":"invalid_grant","error_description":"Expired."})"));
  signIn();
  EXPECT_EQ(state.errorMessage(), "Expired.");
  service.answer("/token", FakeHTTPTransport::json(400, R"({"error":"invalid_grant"})"));
  signIn();
  EXPECT_EQ(state.errorMessage(), "OAuth error 400 invalid_grant");
  EXPECT_EQ(state.session(), Session::signedOut());
  EXPECT_EQ(tokens.stored(), std::nullopt);
}

TEST(AuthControllerLifetimeTest, DestroyingTheControllerEndsASignInWaitingForTheBrowser) {
  FakeHTTPTransport transport;
  transport.setHandler([service = std::make_shared<FakeService>()](const HTTPRequest& request) {
    return service->answer(request);
  });
  synckit::testing::InMemoryTokenStore tokens;
  synckit::TokenManager tokenManager{base, transport, tokens, [] { return std::string("c"); }};
  RunLoop loop;
  AppState state{tokenManager, [] { return std::string("Box"); }, loop};
  synckit::testing::TemporaryDirectory directory;
  auto store = synckit::MetadataStore::open(directory / "sync.sqlite");
  FakeWebAuthenticator authenticator;
  {
    AuthController controller{state,        tokenManager,  base, transport, store.get(),
                              std::nullopt, authenticator, loop, "Box"};
    controller.signIn();
    ASSERT_TRUE(authenticator.waitForURLs(1));
  }
  loop.runFor(std::chrono::milliseconds(50));
  EXPECT_EQ(state.session(), Session::signingIn());
}

}  // namespace
}  // namespace halvark
