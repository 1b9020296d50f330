#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "app/core/domain_controller.h"
#include "app/core/sync_scheduler.h"
#include "app/platform/linux_file_provider_manager.h"
#include "synckit/api/curl_transport.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/file_token_store.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "tests/e2e/devserver_session.h"
#include "tests/e2e/mirror_tree.h"

namespace halvark::e2e {

// halvark-provider as a child process of the test, with standard output and
// error appended to a log file that failures print. Killed when it goes away.
class ProviderProcess {
 public:
  ProviderProcess(const std::vector<std::string>& options, const std::filesystem::path& log);
  ~ProviderProcess();
  ProviderProcess(const ProviderProcess&) = delete;
  ProviderProcess& operator=(const ProviderProcess&) = delete;

  // The exit status (128 + signal for a killed process); absent when it is
  // still running after `limit`.
  std::optional<int> waitForExit(std::chrono::milliseconds limit = std::chrono::seconds(60));
  // Sends `signal` and waits for the exit.
  std::optional<int> stop(int signal);
  // Sends `signal` and returns at once (SIGSTOP, SIGCONT).
  void signal(int signal);

 private:
  pid_t pid_ = -1;
};

// Everything a provider test runs against, all on loopback and below one
// temporary folder: a devserver signed in as "demo", the application's
// shared store and token file, the scheduler of the application running in
// the test process (it brings the server into the store and uploads what
// the provider journals), and a mirror folder for halvark-provider, which
// each case starts itself.
class ProviderFixture : public ::testing::Test, protected DevServerSession {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::filesystem::path log() const { return root_ / "provider.log"; }
  std::unique_ptr<ProviderProcess> startProvider(std::vector<std::string> options = {});
  // One complete update, as the bench and a restart after a crash do it.
  void runProviderOnce();

  synckit::Uuid createBrain(const std::string& name, const std::string& slug);
  void serverWrite(const synckit::Uuid& brain, const std::string& path, const std::string& content);
  void serverWriteBlob(const synckit::Uuid& brain, const std::string& path,
                       const std::string& bytes);
  void serverCall(const synckit::Uuid& brain, const std::string& action,
                  const nlohmann::json& body);
  Tree serverTree(const synckit::Uuid& brain);

  // Refreshes the granted brains, runs the scheduler (or pokes it), and
  // waits until every stored brain's cursor is the server's head.
  void syncStore();
  // Waits until the brain's folder in the mirror holds exactly `expected`;
  // on failure reports the paths that differ.
  void expectMirrored(const std::string& folder, const Tree& expected,
                      std::chrono::milliseconds limit = std::chrono::seconds(30));

  std::set<std::string> mirrorFolders();
  std::filesystem::path trash() const { return root_ / "data" / "Trash"; }
  static std::uint64_t inodeOf(const std::filesystem::path& path);
  // What the scheduler handed to the application's recent sync errors.
  std::vector<std::string> syncErrors();

  synckit::testing::ScopedEnvironment environment_;
  synckit::testing::TemporaryDirectory root_;
  std::filesystem::path box_;
  std::filesystem::path mirror_;
  std::unique_ptr<synckit::MetadataStore> store_;
  std::unique_ptr<synckit::FileTokenStore> tokenFile_;
  std::unique_ptr<synckit::TokenManager> appTokens_;
  std::unique_ptr<synckit::SyncAPIClient> appApi_;
  std::unique_ptr<LinuxFileProviderManager> fileProvider_;
  std::unique_ptr<DomainController> domainController_;
  std::unique_ptr<SyncScheduler> scheduler_;
  bool schedulerStarted_ = false;
  synckit::Uuid demo_;

 private:
  std::mutex syncErrorsMutex_;
  std::vector<std::string> syncErrors_;
};

}  // namespace halvark::e2e
