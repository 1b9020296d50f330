#include "provider/provider_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <set>

#include "synckit/base/cancellation.h"
#include "synckit/conflicts/sync_error_log.h"
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

// A container, a mirror folder and a store with one brain, "Notes".
class ProviderServiceRunTest : public ::testing::Test {
 protected:
  ProviderServiceRunTest() {
    environment_.set("HALVARK_CONTAINER", container_.string())
        .set("XDG_RUNTIME_DIR", (temp_ / "run").string())
        .set("XDG_CONFIG_HOME", (temp_ / "config").string())
        .set("XDG_DATA_HOME", (temp_ / "data").string())
        .set("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    store_ = synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
    store_->upsertBrain({brainId_, "notes", "Notes", std::nullopt});
    store_->recordChange(synckit::SyncItemIdentifier::brain(brainId_), false);
  }

  // Runs `service` on a thread of its own until `stop`.
  static std::future<int> running(std::unique_ptr<ProviderService>& service, std::stop_token stop) {
    return std::async(std::launch::async, [&service, stop] {
      synckit::CancellationScope scope(stop);
      return service->run();
    });
  }

  synckit::testing::TemporaryDirectory temp_;
  synckit::testing::ScopedEnvironment environment_;
  const fs::path container_ = temp_ / "container";
  const fs::path mirror_ = temp_ / "Halvark";
  std::unique_ptr<synckit::MetadataStore> store_;
  const synckit::Uuid brainId_ = synckit::Uuid::random();
};

// Requests a stop when it goes, so that a failed assertion cannot leave a
// running service for its future to wait on for ever.
struct StopAtExit {
  std::stop_source& source;
  ~StopAtExit() { source.request_stop(); }
};

// One provider per container; it follows the store when signalled and
// stops when stopped or when the application no longer registers it.
TEST_F(ProviderServiceRunTest, OneInstanceFollowsTheStoreUntilStoppedOrItsDomainIsRemoved) {
  const fs::path& container = container_;
  const fs::path& mirror = mirror_;
  auto& store = store_;
  const synckit::Uuid brainId = brainId_;
  auto service = std::make_unique<ProviderService>(ProviderService::Options{false, mirror});
  EXPECT_THROW(ProviderService(ProviderService::Options{true, mirror}),
               ProviderService::AlreadyRunning);
  auto running = [&](std::stop_token stop) {
    return ProviderServiceRunTest::running(service, stop);
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

// What the user does in the mirror becomes pending changes and wakes the
// application; what happened while the provider was stopped is found when
// it starts; what cannot be uploaded is reported once.
TEST_F(ProviderServiceRunTest, LocalEditsAreQueuedAndWakeTheApplication) {
  std::atomic<int> wakes = 0;
  synckit::SyncSignalListener application(synckit::SyncSignal::name(), [&] { ++wakes; });
  auto pendingPaths = [&] {
    std::set<std::string> paths;
    for (const synckit::PendingChange& change : store_->pendingChanges()) paths.insert(change.path);
    return paths;
  };
  std::vector<std::string> errors;
  auto drainErrors = [&] {
    for (std::string& error : synckit::SyncErrorLog::drain(*store_)) errors.push_back(error);
    return !errors.empty();
  };

  auto service = std::make_unique<ProviderService>(ProviderService::Options{false, mirror_});
  std::stop_source stop;
  auto finished = running(service, stop.get_token());
  const StopAtExit stopAtExit{stop};
  ASSERT_TRUE(eventually([&] { return fs::is_directory(mirror_ / "Notes"); }));
  std::ofstream(mirror_ / "Notes/new.md") << "typed here";
  fs::create_symlink("/etc/hostname", mirror_ / "Notes/link");
  ASSERT_TRUE(eventually([&] { return pendingPaths() == std::set<std::string>{"new.md"}; }));
  EXPECT_TRUE(eventually([&] { return wakes > 0; }));
  EXPECT_TRUE(eventually(drainErrors));
  EXPECT_EQ(errors, std::vector<std::string>{"\u201cNotes/link\u201d in the mirror folder is a "
                                             "symbolic link. It is not uploaded."});
  stop.request_stop();
  ASSERT_EQ(finished.wait_for(5s), std::future_status::ready);

  std::ofstream(mirror_ / "Notes/offline.md") << "written while stopped";
  std::stop_source again;
  finished = running(service, again.get_token());
  const StopAtExit stopAgainAtExit{again};
  ASSERT_TRUE(eventually([&] {
    return pendingPaths() == std::set<std::string>{"new.md", "offline.md"};
  }));
  again.request_stop();
  ASSERT_EQ(finished.wait_for(5s), std::future_status::ready);
}

}  // namespace
}  // namespace halvark::provider
