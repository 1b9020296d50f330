#include "app/core/app_model.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "app/core/run_loop.h"
#include "app/core/testing/fake_file_provider_manager.h"
#include "app/core/testing/fake_web_authenticator.h"
#include "synckit/store/meta_key.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using synckit::HTTPRequest;
using synckit::HTTPResponse;
using synckit::testing::FakeHTTPTransport;
using testing::FakeWebAuthenticator;

const synckit::Uuid brainA = *synckit::Uuid::parse("0A000000-0000-4000-8000-000000000001");

// The service for one brain with an empty change feed, and its sign-in.
HTTPResponse answer(const HTTPRequest& request) {
  const std::string path = request.url.substr(request.url.find('/', 8));
  const auto json = FakeHTTPTransport::json;
  if (path == "/.well-known/oauth-authorization-server") {
    return json(200, R"({"issuer":"i","authorization_endpoint":"https://s.test/authorize",
      "token_endpoint":"https://s.test/token","registration_endpoint":"https://s.test/register"})");
  }
  if (path == "/register") {
    return json(201, R"({"client_id":"c","client_name":"Halvark Desktop","redirect_uris":[],
      "token_endpoint_auth_method":"none","grant_types":[],"response_types":[]})");
  }
  if (path == "/token") {
    return json(200, R"({"access_token":"a","token_type":"Bearer","expires_in":60,
      "refresh_token":"r","scope":"readwrite"})");
  }
  if (path == "/api/sync/devices") {
    return json(201, R"({"device":{"id":"d","name":"Box-2","platform":"linux",
      "createdAt":"2025-03-01T09:30:12.345Z"}})");
  }
  if (path == "/api/sync/brains") {
    return json(200, R"({"brains":[{"id":")" + brainA.toLowerString() +
                         R"(","teamId":"t","name":"Alpha","slug":"alpha"}]})");
  }
  if (path.find("/changes?") != std::string::npos) {
    return json(200, R"({"reset":false,"entries":[],"cursor":"c1"})");
  }
  return HTTPResponse{404, {}, {}};
}

class AppModelTest : public ::testing::Test {
 protected:
  AppModelTest() {
    environment.set("HALVARK_CONTAINER", (directory / "container").string())
        .set("XDG_RUNTIME_DIR", directory.path().string())
        .set("XDG_CONFIG_HOME", (directory / "config").string());
  }

  std::unique_ptr<AppModel> makeModel(std::optional<synckit::TokenSet> stored) {
    auto transport = std::make_unique<FakeHTTPTransport>();
    transport->setHandler(answer);
    requests = transport.get();
    return std::make_unique<AppModel>(AppModel::Platform{
        .mainQueue = loop,
        .authenticator = authenticator,
        .fileProviderManager = fileProvider,
        .makeTokenStore =
            [stored] { return std::make_unique<synckit::testing::InMemoryTokenStore>(stored); },
        .transport = std::move(transport),
        .hostName = "Box",
    });
  }

  // Runs the main queue until `done` holds; the sync side moves on its own
  // threads, which post nothing when they are finished.
  bool runUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      loop.runFor(std::chrono::milliseconds(10));
    }
    return true;
  }

  const std::vector<FileProviderDomain> halvarkDomain{{"halvark", "Halvark"}};
  synckit::testing::TemporaryDirectory directory;
  synckit::testing::ScopedEnvironment environment;
  RunLoop loop;
  FakeWebAuthenticator authenticator;
  testing::FakeFileProviderManager fileProvider;
  FakeHTTPTransport* requests = nullptr;
};

TEST_F(AppModelTest, ASignedOutLaunchRemovesALeftOverDomain) {
  fileProvider.addDomain(halvarkDomain[0]);
  auto model = makeModel(std::nullopt);
  ASSERT_TRUE(runUntil([&] { return fileProvider.registeredDomains().empty(); }));
  EXPECT_EQ(model->appState().session(), Session::signedOut());
  EXPECT_FALSE(model->scheduler()->runId());
}

TEST_F(AppModelTest, WithoutItsStoreTheModelShowsWhyAndSyncsNothing) {
  std::ofstream(directory / "file") << "in the way";
  environment.set("HALVARK_CONTAINER", (directory / "file" / "container").string());
  fileProvider.addDomain(halvarkDomain[0]);
  auto model = makeModel(std::nullopt);
  const std::string prefix = "Halvark's shared storage is unavailable: ";
  const std::optional<std::string> message = model->appState().errorMessage();
  ASSERT_TRUE(message);
  EXPECT_TRUE(message->starts_with(prefix) && message->size() > prefix.size()) << *message;
  EXPECT_EQ(model->store(), nullptr);
  EXPECT_EQ(model->scheduler(), nullptr);
  EXPECT_EQ(model->domainController(), nullptr);

  // Without a store there is nowhere to keep the client id: the sign-in
  // ends at once with the same reason.
  model->authController().signIn();
  ASSERT_TRUE(runUntil([&] { return model->appState().session() == Session::signedOut(); }));
  EXPECT_EQ(model->appState().errorMessage(), message);
  EXPECT_EQ(requests->requestCount(), 0u);
  EXPECT_TRUE(authenticator.urls().empty());
  model->syncNow();
  EXPECT_EQ(fileProvider.registeredDomains(), halvarkDomain);
}

TEST_F(AppModelTest, SigningInStartsTheSyncSigningOutStopsItAndQuittingKeepsTheDomain) {
  auto model = makeModel(std::nullopt);
  const AppState& state = model->appState();
  authenticator.respondWith([](const std::string& url) {
    return "halvark://oauth/callback?code=k&state=" +
           FakeWebAuthenticator::queryValue(url, "state");
  });
  model->authController().signIn();
  ASSERT_TRUE(runUntil([&] { return !state.brainStatuses().empty(); }));
  EXPECT_EQ(state.session(), Session::signedIn("Box-2"));
  EXPECT_EQ(fileProvider.registeredDomains(), halvarkDomain);
  EXPECT_TRUE(model->scheduler()->runId());
  model->setInboxBrain(brainA);
  EXPECT_EQ(state.inboxBrainId(), brainA);
  EXPECT_EQ(model->store()->metaValue(synckit::MetaKey::inboxBrainId), brainA.toString());

  model->authController().signOut();
  ASSERT_TRUE(runUntil(
      [&] { return state.brainStatuses().empty() && fileProvider.registeredDomains().empty(); }));
  EXPECT_EQ(state.session(), Session::signedOut());
  EXPECT_EQ(state.inboxBrainId(), std::nullopt);
  EXPECT_FALSE(model->scheduler()->runId());
  const std::size_t signedOutRequests = requests->requestCount();
  model->syncNow();
  loop.runFor(std::chrono::milliseconds(50));
  EXPECT_EQ(requests->requestCount(), signedOutRequests);
  model.reset();

  // A launch with a stored session syncs at once; quitting is not signing out.
  model = makeModel(synckit::TokenSet{"a", "r"});
  ASSERT_TRUE(runUntil([&] { return !model->appState().brainStatuses().empty(); }));
  EXPECT_EQ(fileProvider.registeredDomains(), halvarkDomain);
  model.reset();
  EXPECT_EQ(fileProvider.registeredDomains(), halvarkDomain);
}

}  // namespace
}  // namespace halvark
