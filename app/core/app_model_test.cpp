#include "app/core/app_model.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "app/core/run_loop.h"
#include "app/core/testing/fake_file_provider_manager.h"
#include "app/core/testing/fake_sign_in_service.h"
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

// The sign-in, and one brain with an empty change feed.
HTTPResponse answer(testing::FakeSignInService& signIn, const HTTPRequest& request) {
  if (auto answer = signIn.answer(request)) return *answer;
  if (request.url.ends_with("/api/sync/brains")) {
    return FakeHTTPTransport::json(200, R"({"brains":[{"id":")" + brainA.toLowerString() +
                                            R"(","teamId":"t","name":"Alpha","slug":"alpha"}]})");
  }
  if (request.url.find("/changes?") != std::string::npos) {
    return FakeHTTPTransport::json(200, R"({"reset":false,"entries":[],"cursor":"c1"})");
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
    transport->setHandler([this](const HTTPRequest& request) { return answer(service, request); });
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
  testing::FakeSignInService service;
  testing::FakeFileProviderManager fileProvider;
  FakeHTTPTransport* requests = nullptr;
};

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

  // Without a store there is nowhere to keep the client id: the sign-in
  // ends at once with the same reason.
  model->authController().signIn();
  ASSERT_TRUE(runUntil([&] { return model->appState().session() == Session::signedOut(); }));
  EXPECT_EQ(model->appState().errorMessage(), message);
  EXPECT_EQ(requests->requestCount(), 0u);
  EXPECT_TRUE(authenticator.urls().empty());
  EXPECT_EQ(fileProvider.registeredDomains(), halvarkDomain);
}

TEST_F(AppModelTest, SigningInStartsTheSyncSigningOutStopsItAndOnlyQuittingKeepsTheDomain) {
  // A signed-out launch removes what an earlier run left.
  fileProvider.addDomain(halvarkDomain[0]);
  auto model = makeModel(std::nullopt);
  const AppState& state = model->appState();
  ASSERT_TRUE(runUntil([&] { return fileProvider.registeredDomains().empty(); }));

  authenticator.respondWith(FakeWebAuthenticator::approving());
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
