#include "provider/provider_service.h"

#include <gtest/gtest.h>

#include <future>

#include "synckit/base/cancellation.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/domain_registry.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/local_index.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark::provider {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using synckit::testing::eventually;

TEST(ProviderServiceTest, ArgumentsAreOnceAndAMirrorFolder) {
  EXPECT_EQ(ProviderService::parseArguments({}), ProviderService::Options{});
  const auto options = ProviderService::parseArguments({"--mirror", "/m/Halvark", "--once"});
  EXPECT_TRUE(options.once);
  EXPECT_EQ(options.mirror, fs::path("/m/Halvark"));
  EXPECT_THROW(ProviderService::parseArguments({"--mirror"}), ProviderService::UsageError);
  EXPECT_THROW(ProviderService::parseArguments({"--fast"}), ProviderService::UsageError);
}

// One provider per container; it follows the store when signalled and
// stops when stopped or when the application no longer registers it.
TEST(ProviderServiceTest, OneInstanceFollowsTheStoreUntilStoppedOrItsDomainIsRemoved) {
  synckit::testing::TemporaryDirectory temp;
  synckit::testing::ScopedEnvironment environment;
  environment.set("HALVARK_CONTAINER", (temp / "container").string())
      .set("XDG_RUNTIME_DIR", (temp / "run").string())
      .set("XDG_CONFIG_HOME", (temp / "config").string())
      .set("XDG_DATA_HOME", (temp / "data").string())
      .set("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
  const fs::path container = temp / "container";
  const fs::path mirror = temp / "Halvark";

  auto service = std::make_unique<ProviderService>(ProviderService::Options{false, mirror});
  EXPECT_THROW(ProviderService(ProviderService::Options{true, mirror}),
               ProviderService::AlreadyRunning);

  auto store = synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
  const synckit::Uuid brainId = synckit::Uuid::random();
  store->upsertBrain({brainId, "notes", "Notes", std::nullopt});
  store->recordChange(synckit::SyncItemIdentifier::brain(brainId), false);

  auto running = [&](std::stop_token stop) {
    return std::async(std::launch::async, [&service, stop] {
      synckit::CancellationScope scope(stop);
      return service->run();
    });
  };
  std::stop_source stop;
  auto finished = running(stop.get_token());
  ASSERT_TRUE(eventually([&] { return fs::is_directory(mirror / "Notes"); }));

  // A folder node appears once the application signals the working set.
  synckit::NodeRecord folder;
  folder.brainId = brainId;
  folder.nodeId = "dir:inbox";
  folder.path = "inbox";
  folder.isDirectory = true;
  store->upsertNode(folder);
  store->recordChange(synckit::SyncItemIdentifier::node(brainId, folder.nodeId), false);
  ASSERT_TRUE(eventually([&] {
    synckit::SyncSignal::post(synckit::ProviderPaths::workingSetSignalName());
    return fs::is_directory(mirror / "Notes" / "inbox");
  }));

  stop.request_stop();
  ASSERT_EQ(finished.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(finished.get(), 0);

  // Registered, it runs; once the registry lists only others, it ends.
  const fs::path domains = synckit::ProviderPaths::domainsURL(container);
  synckit::DomainRegistry::save(domains, {{"halvark", "Halvark"}});
  std::stop_source never;
  finished = running(never.get_token());
  EXPECT_EQ(finished.wait_for(300ms), std::future_status::timeout);
  synckit::DomainRegistry::save(domains, {{"elsewhere", "Elsewhere"}});
  ASSERT_EQ(finished.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(finished.get(), 0);

  service.reset();
  EXPECT_NO_THROW(ProviderService(ProviderService::Options{true, mirror}).run());
}

}  // namespace
}  // namespace halvark::provider
