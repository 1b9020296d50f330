#include "tests/e2e/provider_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>

#include "synckit/base/crypto.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/meta_key.h"
#include "synckit/testing/eventually.h"

extern char** environ;

namespace halvark::e2e {

namespace fs = std::filesystem;
using nlohmann::json;
using synckit::Uuid;
using synckit::testing::eventually;

ProviderProcess::ProviderProcess(const std::vector<std::string>& options, const fs::path& log) {
  std::vector<std::string> arguments{HALVARK_PROVIDER_PATH};
  arguments.insert(arguments.end(), options.begin(), options.end());
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) throw std::runtime_error("could not start " + arguments[0]);
}

ProviderProcess::~ProviderProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::optional<int> ProviderProcess::waitForExit(std::chrono::milliseconds limit) {
  std::optional<int> result;
  eventually(
      [&] {
        int status = 0;
        if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) != pid_) return false;
        pid_ = -1;
        result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
      },
      limit, std::chrono::milliseconds(20));
  return result;
}

std::optional<int> ProviderProcess::stop(int signal) {
  ::kill(pid_, signal);
  return waitForExit(std::chrono::seconds(10));
}

void ProviderProcess::signal(int signal) { ::kill(pid_, signal); }

void ProviderFixture::SetUp() {
  for (const char* folder : {"container", "runtime", "data", "config", "box", "target"}) {
    fs::create_directories(root_ / folder);
  }
  box_ = root_ / "box";
  mirror_ = box_ / "mirror";
  // No Secret Service on the bus: both processes keep the tokens in the
  // container's token file.
  environment_.set("HALVARK_CONTAINER", (root_ / "container").string())
      .set("XDG_RUNTIME_DIR", (root_ / "runtime").string())
      .set("XDG_DATA_HOME", (root_ / "data").string())
      .set("XDG_CONFIG_HOME", (root_ / "config").string())
      .set("HALVARK_MIRROR", mirror_.string())
      .set("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (root_ / "no-bus").string())
      .set("JOURNAL_STREAM", std::nullopt)
      .set("HALVARK_PROVIDER_PATH", HALVARK_PROVIDER_PATH);
  ASSERT_NO_FATAL_FAILURE(signIn());
  synckit::AppGroup::sharedDefaults()->set(synckit::AppGroup::baseURLOverrideKey,
                                           server_.baseURL());

  store_ = synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
  store_->setMeta(synckit::MetaKey::clientId, clientId_);
  store_->setMeta(synckit::MetaKey::deviceId, deviceId_);
  store_->setMeta(synckit::MetaKey::deviceName, "e2e-machine");
  tokenFile_ = std::make_unique<synckit::FileTokenStore>(synckit::AppGroup::tokenFileURL());
  tokenFile_->save(tokenStore_.stored().value());
  appTokens_ =
      std::make_unique<synckit::TokenManager>(server_.baseURL(), transport_, *tokenFile_, *store_);
  appTokens_->restoreSession();
  appApi_ = std::make_unique<synckit::SyncAPIClient>(server_.baseURL(), transport_, *appTokens_);
  // The application's own file-provider manager. It starts a provider only
  // once the domain is registered (DomainController::activate); until then
  // each case runs the provider itself.
  fileProvider_ = std::make_unique<LinuxFileProviderManager>();
  domainController_ =
      std::make_unique<DomainController>(*store_, *appApi_, *appTokens_, *fileProvider_);
  SyncScheduler::Callbacks callbacks;
  callbacks.onSyncError = [this](std::string message) {
    std::lock_guard lock(syncErrorsMutex_);
    syncErrors_.push_back(std::move(message));
  };
  scheduler_ = std::make_unique<SyncScheduler>(*store_, *appApi_, *appTokens_, *domainController_,
                                               std::move(callbacks));
  demo_ = *Uuid::parse(demoBrain().id);
}

void ProviderFixture::TearDown() {
  scheduler_.reset();
  fileProvider_.reset();
  if (HasFailure()) std::cerr << "halvark-provider's output:\n" << readAll(log()) << '\n';
}

std::unique_ptr<ProviderProcess> ProviderFixture::startProvider(std::vector<std::string> options) {
  return std::make_unique<ProviderProcess>(options, log());
}

void ProviderFixture::runProviderOnce() {
  auto provider = startProvider({"--once"});
  ASSERT_EQ(provider->waitForExit(), 0);
}

Uuid ProviderFixture::createBrain(const std::string& name, const std::string& slug) {
  const json created = control("POST", "/brains", {{"name", name}, {"slug", slug}});
  return *Uuid::parse(created.at("brain").at("id").get<std::string>());
}

void ProviderFixture::serverWrite(const Uuid& brain, const std::string& path,
                                  const std::string& content) {
  control("POST", "/brains/" + brain.toLowerString() + "/write",
          {{"path", path}, {"content", content}});
}

void ProviderFixture::serverWriteBlob(const Uuid& brain, const std::string& path,
                                      const std::string& bytes) {
  control("POST", "/brains/" + brain.toLowerString() + "/write",
          {{"path", path}, {"base64", synckit::base64Encode(synckit::toBytes(bytes))}});
}

void ProviderFixture::serverCall(const Uuid& brain, const std::string& action, const json& body) {
  control("POST", "/brains/" + brain.toLowerString() + "/" + action, body);
}

Tree ProviderFixture::serverTree(const Uuid& brain) {
  return e2e::serverTree(server_.baseURL(), brain);
}

void ProviderFixture::syncStore() {
  ASSERT_NO_THROW(domainController_->refreshBrains());
  if (!schedulerStarted_) {
    scheduler_->start();
    schedulerStarted_ = true;
  } else {
    scheduler_->pokeAll();
  }
  ASSERT_TRUE(eventually(
      [&] {
        const json state = control("GET", "/state");
        for (const synckit::BrainRecord& brain : store_->brains()) {
          for (const json& server : state.at("brains")) {
            if (*Uuid::parse(server.at("id").get<std::string>()) == brain.brainId &&
                brain.cursor != server.at("headCursor").get<std::string>()) {
              return false;
            }
          }
        }
        return true;
      },
      std::chrono::seconds(30), std::chrono::milliseconds(50)));
  // Without a registered domain the scheduler has nobody to tell.
  synckit::SyncSignal::post(synckit::ProviderPaths::workingSetSignalName());
}

void ProviderFixture::expectMirrored(const std::string& folder, const Tree& expected,
                                     std::chrono::milliseconds limit) {
  e2e::expectMirrored(mirror_ / folder, expected, limit);
}

std::set<std::string> ProviderFixture::mirrorFolders() {
  std::set<std::string> names = synckit::testing::entryNames(mirror_);
  names.erase(std::string(synckit::ProviderPaths::stagingFolderName));
  return names;
}

std::uint64_t ProviderFixture::inodeOf(const fs::path& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

std::vector<std::string> ProviderFixture::syncErrors() {
  std::lock_guard lock(syncErrorsMutex_);
  return syncErrors_;
}

}  // namespace halvark::e2e
