#include "app/platform/linux_file_provider_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "app/core/materialized_items_collector.h"
#include "synckit/base/error.h"
#include "synckit/platform/domain_registry.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/local_index.h"
#include "synckit/store/sync_item_identifier.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace halvark {
namespace {

using namespace std::chrono_literals;
using synckit::testing::eventually;
using synckit::testing::thrownBy;

const FileProviderDomain domain{"halvark", "Halvark"};

// A stand-in provider: appends its pid to <container>/starts, then waits.
// SIGTERM makes it exit 0, unless <container>/stubborn exists, which makes
// it ignore SIGTERM. The pid is written once the trap is set, so that a
// test may signal it as soon as it sees the pid.
constexpr const char* fakeProvider = R"(#!/bin/sh
if [ -e "$HALVARK_CONTAINER/stubborn" ]; then trap '' TERM; else trap 'exit 0' TERM; fi
echo $$ >> "$HALVARK_CONTAINER/starts"
while :; do sleep 0.02; done
)";

constexpr const char* sleepingProvider = R"(#!/bin/sh
echo $$ >> "$HALVARK_CONTAINER/starts"
exec sleep 600
)";

constexpr ProviderSupervisor::Timing fastTiming{50ms, 200ms, 60s, 300ms};

class LinuxFileProviderManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    environment.set("HALVARK_CONTAINER", container.string())
        .set("XDG_RUNTIME_DIR", (temp / "run").string())
        .set("HALVARK_MIRROR", (temp / "mirror").string())
        .set("HALVARK_PROVIDER_PATH", (temp / "provider").string());
  }

  void installProvider(const char* script) {
    std::ofstream(temp / "provider") << script;
    std::filesystem::permissions(temp / "provider", std::filesystem::perms::owner_all);
  }

  std::vector<pid_t> starts() const {
    std::vector<pid_t> pids;
    std::ifstream in(container / "starts");
    for (pid_t pid; in >> pid;) pids.push_back(pid);
    return pids;
  }

  bool startsReach(std::size_t count) const {
    return eventually([&] { return starts().size() >= count; });
  }

  synckit::testing::TemporaryDirectory temp;
  const std::filesystem::path container = temp / "container";
  synckit::testing::ScopedEnvironment environment;
};

// True once `pid` is gone and reaped (a zombie still answers kill).
bool reaped(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

std::string statusField(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(field + ":", 0) == 0) {
      std::istringstream value(line.substr(field.size() + 1));
      std::string text;
      value >> text;
      return text;
    }
  }
  return {};
}

TEST_F(LinuxFileProviderManagerTest, StartsACleanProviderRestartsItAndStopsItWithTheDomain) {
  installProvider(sleepingProvider);
  // What the application has when it starts the provider must not leak
  // into it: a blocked and an ignored signal, a descriptor without
  // close-on-exec.
  sigset_t blocked, previousMask;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask), 0);
  auto previousHandler = ::signal(SIGUSR2, SIG_IGN);
  int leaked = ::open("/dev/null", O_RDONLY);
  auto manager = std::make_unique<LinuxFileProviderManager>(fastTiming);
  EXPECT_TRUE(manager->domains().empty());
  EXPECT_EQ(manager->manager(domain), nullptr);

  manager->addDomain({"halvark", "Old name"});
  manager->addDomain(domain);
  ASSERT_TRUE(startsReach(1));
  const pid_t first = starts()[0];
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::signal(SIGUSR2, previousHandler);
  ::close(leaked);
  EXPECT_EQ(manager->domains(), (std::vector<FileProviderDomain>{domain}));
  EXPECT_EQ(synckit::DomainRegistry::load(synckit::ProviderPaths::domainsURL(container)),
            (std::vector<synckit::RegisteredDomain>{{"halvark", "Halvark"}}));
  EXPECT_NE(manager->manager(domain), nullptr);
  EXPECT_EQ(manager->manager(FileProviderDomain{"other", "Halvark"}), nullptr);

  ASSERT_TRUE(eventually([&] {
    std::ifstream comm("/proc/" + std::to_string(first) + "/comm");
    std::string name;
    return comm >> name && name == "sleep";
  }));
  EXPECT_EQ(statusField(first, "SigBlk"), "0000000000000000");
  // (The C library's own signals, 32 and 33, may stay ignored.)
  EXPECT_EQ(std::stoull(statusField(first, "SigIgn"), nullptr, 16) & (1ull << (SIGUSR2 - 1)), 0u);
  EXPECT_EQ(::getpgid(first), first);
  std::set<std::string> fds;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(first) + "/fd")) {
    fds.insert(entry.path().filename());
  }
  EXPECT_EQ(fds, (std::set<std::string>{"0", "1", "2"}));
  EXPECT_EQ(starts().size(), 1u) << "adding the domain twice started two providers";

  ASSERT_EQ(::kill(first, SIGKILL), 0);
  ASSERT_TRUE(startsReach(2));
  const pid_t second = starts()[1];
  EXPECT_NE(second, first);
  EXPECT_TRUE(reaped(first));

  manager->removeDomain(domain);
  EXPECT_TRUE(reaped(second));
  EXPECT_TRUE(manager->domains().empty());
  EXPECT_EQ(manager->manager(domain), nullptr);
  EXPECT_THROW(manager->removeDomain(domain), synckit::Error);

  // Quitting the application stops its provider but keeps the domain.
  manager->addDomain(domain);
  ASSERT_TRUE(startsReach(3));
  manager.reset();
  EXPECT_TRUE(reaped(starts()[2]));
  EXPECT_EQ(synckit::DomainRegistry::load(synckit::ProviderPaths::domainsURL(container)).size(),
            1u);
}

TEST_F(LinuxFileProviderManagerTest, RestartsACleanExitOnlyWhileWantedAndKillsAStubbornProvider) {
  installProvider(fakeProvider);
  LinuxFileProviderManager manager(fastTiming);
  manager.addDomain(domain);
  ASSERT_TRUE(startsReach(1));

  // A clean exit while the domain is registered is still a lost provider.
  ASSERT_EQ(::kill(starts()[0], SIGTERM), 0);
  ASSERT_TRUE(startsReach(2));

  // Once the domain is gone from the container (another instance removed
  // it), a clean exit ends supervision; adding the domain starts afresh.
  synckit::DomainRegistry::save(synckit::ProviderPaths::domainsURL(container), {});
  ASSERT_EQ(::kill(starts()[1], SIGTERM), 0);
  ASSERT_TRUE(eventually([&] { return reaped(starts()[1]); }));
  std::this_thread::sleep_for(4 * fastTiming.firstRestartDelay);
  EXPECT_EQ(starts().size(), 2u);
  std::ofstream(container / "stubborn");
  manager.addDomain(domain);
  ASSERT_TRUE(startsReach(3));

  const auto before = std::chrono::steady_clock::now();
  manager.removeDomain(domain);
  EXPECT_GE(std::chrono::steady_clock::now() - before, fastTiming.terminationGrace);
  EXPECT_TRUE(reaped(starts()[2]));
  EXPECT_EQ(starts().size(), 3u);
}

TEST_F(LinuxFileProviderManagerTest, SignalsTheWorkingSetAndPagesThroughTheLocalIndex) {
  installProvider(sleepingProvider);
  LinuxFileProviderManager manager(fastTiming);
  manager.addDomain(domain);
  auto domainManager = manager.manager(domain);
  ASSERT_NE(domainManager, nullptr);

  std::atomic<int> signals{0};
  synckit::SyncSignalListener listener(synckit::ProviderPaths::workingSetSignalName(),
                                       [&] { ++signals; });
  domainManager->signalWorkingSet();
  EXPECT_TRUE(eventually([&] { return signals > 0; }));

  // No index yet: nothing is materialized.
  EXPECT_TRUE(
      MaterializedItemsCollector(domainManager->materializedItemsEnumerator()).collect().empty());

  // More than two pages of files, with folders in between that are not
  // listed.
  const synckit::Uuid brain = synckit::Uuid::random();
  std::vector<std::string> expected;
  {
    synckit::LocalIndex index(synckit::ProviderPaths::indexURL(container));
    index.transaction([&] {
      for (int i = 0; i < 1203; ++i) {
        const bool isDirectory = i % 100 == 0;
        const std::string node = "n" + std::to_string(i);
        index.put({brain, node, "Brain/" + node, isDirectory, 1, 4, 0, std::uint64_t(i), ""});
        if (!isDirectory)
          expected.push_back(synckit::SyncItemIdentifier::node(brain, node).string());
      }
    });
  }
  EXPECT_EQ(MaterializedItemsCollector(domainManager->materializedItemsEnumerator()).collect(),
            expected);

  auto badPage = [&](const std::string& page) {
    struct Observer : FileProviderManager::EnumerationObserver {
      void didEnumerateItems(std::vector<std::string>) override {}
      void finishEnumeratingUpToPage(std::optional<FileProviderManager::Page>) override {}
      void finishEnumeratingWithError(std::exception_ptr e) override { error = e; }
      std::exception_ptr error;
    };
    auto observer = std::make_shared<Observer>();
    domainManager->materializedItemsEnumerator()->enumerateItems(observer, page);
    return observer->error != nullptr;
  };
  EXPECT_TRUE(badPage("12x"));
  EXPECT_TRUE(badPage("-1"));
  EXPECT_FALSE(badPage("500"));
}

}  // namespace
}  // namespace halvark
