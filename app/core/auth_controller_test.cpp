#include "app/core/auth_controller.h"

#include <gtest/gtest.h>

#include <chrono>

#include "app/core/run_loop.h"
#include "app/core/testing/fake_sign_in_service.h"
#include "app/core/testing/fake_web_authenticator.h"
#include "synckit/auth/token_manager.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using synckit::HTTPRequest;
using synckit::MetaKey::clientId;
using synckit::MetaKey::deviceId;
using synckit::testing::FakeHTTPTransport;
using testing::FakeWebAuthenticator;

constexpr const char* base = "https://sync.example.test";

class AuthControllerTest : public ::testing::Test {
 protected:
  AuthControllerTest() {
    transport.setHandler([this](const HTTPRequest& request) {
      return service.answer(request).value_or(synckit::HTTPResponse{404, {}, {}});
    });
  }

  // Signs in and runs the main queue until the attempt has ended.
  void signIn() {
    controller.signIn();
    ASSERT_EQ(state.session(), Session::signingIn());
    ASSERT_TRUE(loop.runUntil([&] { return state.session() != Session::signingIn(); },
                              std::chrono::seconds(10)));
  }

  std::vector<std::string> paths() const {
    std::vector<std::string> paths;
    for (const HTTPRequest& request : transport.requests()) paths.push_back(request.url.substr(25));
    return paths;
  }

  synckit::testing::TemporaryDirectory directory;
  std::unique_ptr<synckit::MetadataStore> store =
      synckit::MetadataStore::open(directory / "sync.sqlite");
  testing::FakeSignInService service;
  FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens;
  synckit::TokenManager tokenManager{base, transport, tokens, *store};
  RunLoop loop;
  AppState state{tokenManager,
                 [this] { return store->metaValue(synckit::MetaKey::deviceName).value_or("?"); },
                 loop};
  FakeWebAuthenticator authenticator;
  AuthController controller{state,        tokenManager,  base, transport, store.get(),
                            std::nullopt, authenticator, loop, "Box"};
};

TEST_F(AuthControllerTest, SignInRegistersClientAndDeviceOnceAndSignOutKeepsThem) {
  authenticator.respondWith(FakeWebAuthenticator::approving());
  signIn();
  EXPECT_EQ(state.session(), Session::signedIn("Box-2"));
  EXPECT_EQ(tokens.stored(), (synckit::TokenSet{"access-1", "refresh-1"}));
  EXPECT_EQ(store->metaValue(clientId), "client-1");
  EXPECT_EQ(store->metaValue(deviceId), "device-1");
  EXPECT_EQ(paths(), (std::vector<std::string>{"/.well-known/oauth-authorization-server",
                                               "/register", "/token", "/api/sync/devices"}));
  EXPECT_EQ(synckit::toString(transport.requests()[3].body),
            R"({"name":"Box","platform":"linux"})");
  const std::string url = authenticator.urls().at(0);
  const std::string requestState = FakeWebAuthenticator::queryValue(url, "state");
  EXPECT_EQ(requestState.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
            std::string::npos);
  EXPECT_EQ(requestState.size(), 43u);
  EXPECT_EQ(FakeWebAuthenticator::queryValue(url, "client_id"), "client-1");

  controller.signOut();
  ASSERT_TRUE(loop.runUntil([&] { return state.session() == Session::signedOut(); },
                            std::chrono::seconds(10)));
  EXPECT_EQ(tokens.stored(), std::nullopt);

  // With both ids kept, only discovery and the token request go out.
  signIn();
  EXPECT_EQ(state.session(), Session::signedIn("Box-2"));
  EXPECT_EQ(paths().size(), 6u);
  EXPECT_EQ(paths().back(), "/token");
  EXPECT_NE(FakeWebAuthenticator::queryValue(authenticator.urls().at(1), "state"), requestState);
}

TEST_F(AuthControllerTest, CallbackProblemsEndTheAttemptWithTheirMessageOrSilently) {
  using Responder = FakeWebAuthenticator::Responder;
  const auto callback = [](std::string query) -> Responder {
    return [query](const std::string&) { return "halvark://oauth/callback" + query; };
  };
  const Responder upperCaseState = [](const std::string& url) {
    std::string upper = FakeWebAuthenticator::queryValue(url, "state");
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    return "halvark://oauth/callback?code=c&state=" + upper + "A";
  };
  const std::string mismatch = "Sign-in response did not match the request. Please try again.";
  const std::string noCode = "Sign-in response had no authorization code.";
  const std::vector<std::pair<Responder, std::optional<std::string>>> cases = {
      {callback("?error=access_denied"), std::nullopt},
      {callback("?error=server_error&error_description=Try%20later"), "Sign-in failed: Try later"},
      {callback("?error=server_error"), "Sign-in failed: server_error"},
      {upperCaseState, mismatch},
      {callback(""), mismatch},
      {FakeWebAuthenticator::approving("&code="), noCode},  // the later item wins
      {FakeWebAuthenticator::approving("&code"), noCode},   // an item without value removes
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

  // Closing the browser wait ends the attempt silently; a second sign-in
  // meanwhile opens nothing more; destroying a controller ends its wait.
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
  {
    AuthController other{state,        tokenManager,  base, transport, store.get(),
                         std::nullopt, authenticator, loop, "Box"};
    other.signIn();
    ASSERT_TRUE(authenticator.waitForURLs(opened + 2));
  }
  loop.runFor(std::chrono::milliseconds(20));
  EXPECT_EQ(state.session(), Session::signingIn());
}

TEST_F(AuthControllerTest, FailuresAfterTheExchangeLeaveNoTokensAndTellWhy) {
  authenticator.respondWith(FakeWebAuthenticator::approving());
  service.answer("/api/sync/devices",
                 FakeHTTPTransport::json(500, R"({"error":{"code":"INTERNAL","message":"down"}})"));
  signIn();
  EXPECT_EQ(state.session(), Session::signedOut());
  EXPECT_EQ(state.errorMessage(), "Sync API error 500 INTERNAL: down");
  EXPECT_EQ(tokens.saveCount(), 1);
  EXPECT_EQ(tokens.stored(), std::nullopt);
  EXPECT_EQ(store->metaValue(deviceId), std::nullopt);

  // An OAuth error shows the server's description, or its own text without one.
  service.answer("/token", FakeHTTPTransport::json(
                               400, R"({"error":"invalid_grant","error_description":"Expired."})"));
  signIn();
  EXPECT_EQ(state.errorMessage(), "Expired.");
  service.answer("/token", FakeHTTPTransport::json(400, R"({"error":"invalid_grant"})"));
  signIn();
  EXPECT_EQ(state.errorMessage(), "OAuth error 400 invalid_grant");
}

}  // namespace
}  // namespace halvark
