// halvark-provider as a real process between the reference service and the
// disk: the scheduler of this test process brings the server's brains into
// the store, and the provider brings the store into the mirror folder. The
// mirror is compared byte for byte with what the server holds, remote
// changes and deletes are followed, a provider killed mid-download
// converges after a restart, and hostile paths write nothing outside.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "app/core/domain_controller.h"
#include "app/core/sync_scheduler.h"
#include "app/platform/linux_file_provider_manager.h"
#include "synckit/base/crypto.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/file_token_store.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/platform/provider_progress.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "tests/e2e/devserver_session.h"

extern char** environ;

namespace halvark::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using synckit::Uuid;
using synckit::testing::entryNames;
using synckit::testing::eventually;

constexpr std::string_view stagingName = ".halvark-staging";

std::string base64Decode(std::string_view text) {
  static constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    const auto value = alphabet.find(c);
    if (value == std::string_view::npos) continue;  // padding
    buffer = ((buffer << 6) | static_cast<std::uint32_t>(value)) & 0xffffff;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xff));
    }
  }
  return out;
}

std::string readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string randomBytes(std::size_t size) {
  const synckit::Bytes bytes = synckit::secureRandomBytes(size);
  return std::string(bytes.begin(), bytes.end());
}

// One entry of a tree: a folder, a file with its bytes, or a symbolic link.
struct Entry {
  char kind = 'f';
  std::string bytes;
  bool operator==(const Entry&) const = default;
};
using Tree = std::map<std::string, Entry>;

std::ostream& operator<<(std::ostream& out, const Entry& entry) {
  out << entry.kind;
  if (entry.kind == 'f') out << " (" << entry.bytes.size() << " bytes)";
  return out;
}

// Everything below `root`, by "/"-separated relative path; links are not
// followed, and the provider's staging folder at the top is left out.
Tree diskTree(const fs::path& root) {
  Tree tree;
  std::error_code error;
  if (!fs::is_directory(fs::symlink_status(root, error))) return tree;
  for (auto it = fs::recursive_directory_iterator(root, error);
       !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
    const std::string relative = it->path().lexically_relative(root).string();
    if (relative == stagingName) {
      it.disable_recursion_pending();
      continue;
    }
    const auto status = it->symlink_status();
    if (fs::is_symlink(status)) {
      tree[relative] = {'l', ""};
    } else if (fs::is_directory(status)) {
      tree[relative] = {'d', ""};
    } else {
      tree[relative] = {'f', readAll(it->path())};
    }
  }
  return tree;
}

// halvark-provider as a child process of the test, with standard output and
// error appended to a log file that failures print.
class ProviderProcess {
 public:
  ProviderProcess(const std::vector<std::string>& options, const fs::path& log) {
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
  ~ProviderProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  ProviderProcess(const ProviderProcess&) = delete;
  ProviderProcess& operator=(const ProviderProcess&) = delete;

  // The exit status (128 + signal for a killed process); absent when it is
  // still running after `limit`.
  std::optional<int> waitForExit(std::chrono::milliseconds limit = std::chrono::seconds(60)) {
    std::optional<int> result;
    eventually(
        [&] {
          int status = 0;
          if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
          pid_ = -1;
          result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
          return true;
        },
        limit, std::chrono::milliseconds(20));
    return result;
  }
  std::optional<int> stop(int signal) {
    ::kill(pid_, signal);
    return waitForExit(std::chrono::seconds(10));
  }

 private:
  pid_t pid_ = -1;
};

class ProviderAgainstDevServerTest : public ::testing::Test, protected DevServerSession {
 protected:
  void SetUp() override {
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
    appTokens_ = std::make_unique<synckit::TokenManager>(server_.baseURL(), transport_, *tokenFile_,
                                                         *store_);
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

  void TearDown() override {
    scheduler_.reset();
    fileProvider_.reset();
    if (HasFailure()) std::cerr << "halvark-provider's output:\n" << readAll(log()) << '\n';
  }

  fs::path log() const { return root_ / "provider.log"; }
  std::unique_ptr<ProviderProcess> startProvider(std::vector<std::string> options = {}) {
    return std::make_unique<ProviderProcess>(options, log());
  }
  // One complete update, as the bench and a restart after a crash do it.
  void runProviderOnce() {
    auto provider = startProvider({"--once"});
    ASSERT_EQ(provider->waitForExit(), 0);
  }

  Uuid createBrain(const std::string& name, const std::string& slug) {
    const json created = control("POST", "/brains", {{"name", name}, {"slug", slug}});
    return *Uuid::parse(created.at("brain").at("id").get<std::string>());
  }
  void serverWrite(const Uuid& brain, const std::string& path, const std::string& content) {
    control("POST", "/brains/" + brain.toLowerString() + "/write",
            {{"path", path}, {"content", content}});
  }
  void serverWriteBlob(const Uuid& brain, const std::string& path, const std::string& bytes) {
    control("POST", "/brains/" + brain.toLowerString() + "/write",
            {{"path", path}, {"base64", synckit::base64Encode(synckit::toBytes(bytes))}});
  }
  void serverCall(const Uuid& brain, const std::string& action, const json& body) {
    control("POST", "/brains/" + brain.toLowerString() + "/" + action, body);
  }

  // The brain's tree as the server holds it, content included. Asked for
  // uncompressed: the server would spend many seconds compressing a large
  // blob's base64 text.
  Tree serverTree(const Uuid& brain) {
    synckit::HTTPRequest request;
    request.method = "GET";
    request.url = server_.baseURL() + "/_control/brains/" + brain.toLowerString() + "/tree";
    const synckit::HTTPResponse response = plainTransport_.send(request);
    EXPECT_EQ(response.status, 200);
    const json answer = json::parse(synckit::toString(response.body));
    Tree tree;
    for (const json& node : answer.at("nodes")) {
      const std::string path = node.at("path");
      if (node.at("isDirectory").get<bool>()) {
        tree[path] = {'d', ""};
      } else if (node.contains("base64")) {
        tree[path] = {'f', base64Decode(node.at("base64").get<std::string>())};
      } else {
        tree[path] = {'f', node.value("content", "")};
      }
    }
    return tree;
  }

  // Refreshes the granted brains, runs the scheduler (or pokes it), and
  // waits until every stored brain's cursor is the server's head.
  void syncStore() {
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

  // Waits until the brain's folder in the mirror holds exactly the server's
  // tree; on failure reports the paths that differ.
  void expectMirrored(const std::string& folder, const Tree& expected,
                      std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    Tree mirrored;
    const bool same = eventually(
        [&] {
          mirrored = diskTree(mirror_ / folder);
          return mirrored == expected;
        },
        limit, std::chrono::milliseconds(100));
    if (same) return;
    std::set<std::string> paths;
    for (const auto& [path, entry] : expected) paths.insert(path);
    for (const auto& [path, entry] : mirrored) paths.insert(path);
    for (const std::string& path : paths) {
      auto want = expected.find(path);
      auto have = mirrored.find(path);
      if (want == expected.end()) {
        ADD_FAILURE() << folder << "/" << path << " should not be there: " << have->second;
      } else if (have == mirrored.end()) {
        ADD_FAILURE() << folder << "/" << path << " is missing: " << want->second;
      } else if (want->second != have->second) {
        ADD_FAILURE() << folder << "/" << path << " differs: " << have->second << ", not "
                      << want->second;
      }
    }
  }

  std::set<std::string> mirrorFolders() {
    std::set<std::string> names = entryNames(mirror_);
    names.erase(std::string(stagingName));
    return names;
  }
  fs::path trash() const { return root_ / "data" / "Trash"; }
  std::uint64_t inodeOf(const fs::path& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
  }

  synckit::testing::ScopedEnvironment environment_;
  synckit::CurlTransport plainTransport_{{.acceptEncoding = "identity"}};
  synckit::testing::TemporaryDirectory root_;
  fs::path box_;
  fs::path mirror_;
  std::unique_ptr<synckit::MetadataStore> store_;
  std::unique_ptr<synckit::FileTokenStore> tokenFile_;
  std::unique_ptr<synckit::TokenManager> appTokens_;
  std::unique_ptr<synckit::SyncAPIClient> appApi_;
  std::unique_ptr<LinuxFileProviderManager> fileProvider_;
  std::unique_ptr<DomainController> domainController_;
  std::unique_ptr<SyncScheduler> scheduler_;
  bool schedulerStarted_ = false;
  Uuid demo_;
  std::mutex syncErrorsMutex_;
  std::vector<std::string> syncErrors_;  // what the scheduler handed to the recent-errors list
};

TEST_F(ProviderAgainstDevServerTest, MirrorsTheBrainAndFollowsRemoteChanges) {
  serverWrite(demo_, "deep/er/than/that/leaf.md", "at the bottom");
  serverWrite(demo_, "Ünïcødé/日本語 メモ.md", "ノート");
  serverWrite(demo_, "Ünïcødé/ça va?.txt", "oui");
  serverWriteBlob(demo_, "media/big.bin", randomBytes(20 * 1024 * 1024));
  serverWrite(demo_, "empty/empty.md", "");
  serverWriteBlob(demo_, "empty/empty.bin", "");
  ASSERT_NO_FATAL_FAILURE(syncStore());

  // The first run from an empty mirror and index.
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  EXPECT_EQ(mirrorFolders(), std::set<std::string>{"Demo"});
  Tree expected = serverTree(demo_);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", expected, std::chrono::seconds(1)));
  const auto progress = synckit::ProviderProgressFile::read(
      synckit::ProviderPaths::progressURL(synckit::AppGroup::containerURL()));
  ASSERT_TRUE(progress.has_value());
  EXPECT_TRUE(progress->idle);
  EXPECT_EQ(progress->filesRemaining, 0);
  EXPECT_EQ(progress->bytesRemaining, 0);
  EXPECT_GE(store_->ownWriteCount(demo_, "deep/er/than/that/leaf.md"), 1);
  const std::uint64_t marchInode = inodeOf(mirror_ / "Demo/notes/2025/march.md");
  const std::uint64_t bigInode = inodeOf(mirror_ / "Demo/media/big.bin");
  ASSERT_NE(marchInode, 0u);

  // From now on the application's file-provider manager runs the provider,
  // and the scheduler's working-set signal wakes it. Every access token
  // expires first, so both processes renew the one shared session, and
  // neither may end it.
  ASSERT_NO_THROW(domainController_->activate());
  EXPECT_GE(control("POST", "/tokens/expire").at("expired").get<int>(), 1);
  serverWrite(demo_, "inbox/new.md", "created elsewhere");
  serverWrite(demo_, "Welcome.md", "rewritten elsewhere");
  serverCall(demo_, "move", {{"fromPath", "notes"}, {"toPath", "journal/notes"}});
  serverCall(demo_, "delete", {{"path", "projects/halvark/todo.txt"}});
  ASSERT_NO_FATAL_FAILURE(syncStore());
  expected = serverTree(demo_);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", expected));
  EXPECT_TRUE(tokenFile_->load().has_value());

  // A move renames: the moved file is the same file, not a new download;
  // content nobody changed stays in place.
  EXPECT_EQ(inodeOf(mirror_ / "Demo/journal/notes/2025/march.md"), marchInode);
  EXPECT_EQ(inodeOf(mirror_ / "Demo/media/big.bin"), bigInode);
  // The deleted file went to the desktop trash with where it came from.
  EXPECT_EQ(readAll(trash() / "files/todo.txt"),
            "write the release notes\ntry a conflict on purpose\n");
  const std::string info = readAll(trash() / "info/todo.txt.trashinfo");
  EXPECT_NE(info.find("Path=" + (mirror_ / "Demo/projects/halvark/todo.txt").string()),
            std::string::npos)
      << info;
  EXPECT_NE(info.find("DeletionDate="), std::string::npos) << info;

  // The application lists exactly the brain's files as materialized.
  std::unordered_set<synckit::SyncItemIdentifier> files;
  for (const synckit::NodeRecord& node : store_->nodes(demo_)) {
    if (!node.isDirectory) files.insert(synckit::SyncItemIdentifier::node(demo_, node.nodeId));
  }
  EXPECT_EQ(domainController_->materializedIdentifiers(), files);

  // Removing the domain stops the provider and leaves the mirror as it is.
  domainController_->deactivate();
  EXPECT_FALSE(synckit::SyncSignal::post(synckit::ProviderPaths::workingSetSignalName()));
  EXPECT_EQ(diskTree(mirror_ / "Demo"), expected);
  EXPECT_FALSE(fs::exists(mirror_ / stagingName) && !fs::is_empty(mirror_ / stagingName));
}

TEST_F(ProviderAgainstDevServerTest, NamesBrainFoldersStablyAndTrashesARevokedBrain) {
  const Uuid first = createBrain("Projects", "projects-a");
  const Uuid second = createBrain("Projects", "projects-b");
  const Uuid slashed = createBrain("a/b", "slashed");
  serverWrite(first, "a.md", "in the first");
  serverWrite(second, "b.md", "in the second");
  serverWrite(slashed, "c.md", "behind a slash");
  ASSERT_NO_FATAL_FAILURE(syncStore());

  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  const std::set<std::string> folders{"Demo", "Projects (projects-a)", "Projects (projects-b)",
                                      "slashed"};
  EXPECT_EQ(mirrorFolders(), folders);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Projects (projects-a)", serverTree(first)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Projects (projects-b)", serverTree(second)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("slashed", serverTree(slashed)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", serverTree(demo_)));

  // Another run keeps every folder as it is.
  const std::uint64_t secondInode = inodeOf(mirror_ / "Projects (projects-b)");
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  EXPECT_EQ(mirrorFolders(), folders);
  EXPECT_EQ(inodeOf(mirror_ / "Projects (projects-b)"), secondInode);

  // The first brain is revoked: its folder goes to the trash, and the other
  // "Projects" no longer collides, so its folder takes the plain name.
  control("POST", "/brains/" + first.toLowerString() + "/revoke", {{"member", "demo"}});
  ASSERT_NO_FATAL_FAILURE(syncStore());
  ASSERT_FALSE(store_->brain(first).has_value());
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  EXPECT_EQ(mirrorFolders(), (std::set<std::string>{"Demo", "Projects", "slashed"}));
  EXPECT_EQ(inodeOf(mirror_ / "Projects"), secondInode);
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Projects", serverTree(second)));
  EXPECT_EQ(readAll(trash() / "files/Projects (projects-a)/a.md"), "in the first");
  EXPECT_TRUE(fs::exists(trash() / "info/Projects (projects-a).trashinfo"));
}

TEST_F(ProviderAgainstDevServerTest, ConvergesAfterBeingKilledDuringDownloads) {
  const Uuid big = createBrain("Big", "big");
  serverWriteBlob(big, "big.bin", randomBytes(20 * 1024 * 1024));
  for (int i = 0; i < 24; ++i) {
    serverWrite(big, "small/" + std::to_string(i) + ".md", "small file " + std::to_string(i));
  }
  ASSERT_NO_FATAL_FAILURE(syncStore());
  const Tree expected = serverTree(big);

  // Every download of the brain waits a while on the server, so that the
  // kill finds some of them on the wire and some finished.
  const std::string filePath = "/brains/" + big.toLowerString() + "/file";
  constexpr int armed = 1000;
  control("POST", "/faults",
          {{"path", filePath}, {"method", "GET"}, {"delayMs", 300}, {"count", armed}});
  auto remaining = [&] {
    const json faults = control("GET", "/faults").at("faults");
    return faults.empty() ? 0 : faults.front().at("count").get<int>();
  };
  auto provider = startProvider();
  ASSERT_TRUE(eventually([&] { return remaining() <= armed - 12; }, std::chrono::seconds(30),
                         std::chrono::milliseconds(10)));
  EXPECT_EQ(provider->stop(SIGKILL), 128 + SIGKILL);

  // Whatever reached a final path is complete.
  const Tree partial = diskTree(mirror_ / "Big");
  EXPECT_LT(partial.size(), expected.size());
  for (const auto& [path, entry] : partial) {
    auto want = expected.find(path);
    ASSERT_NE(want, expected.end()) << path;
    EXPECT_EQ(entry, want->second) << path;
  }

  control("DELETE", "/faults");
  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Big", expected, std::chrono::seconds(1)));
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", serverTree(demo_), std::chrono::seconds(1)));
  EXPECT_FALSE(fs::exists(mirror_ / stagingName) && !fs::is_empty(mirror_ / stagingName));
}

TEST_F(ProviderAgainstDevServerTest, WritesNothingOutsideTheMirror) {
  // A link where the brain's "notes" folder belongs, pointing outside.
  const fs::path target = root_ / "target";
  fs::create_directories(mirror_ / "Demo");
  fs::create_directory_symlink(target, mirror_ / "Demo/notes");
  ASSERT_NO_FATAL_FAILURE(syncStore());
  // Nodes whose paths climb out of the brain's folder, as a damaged or
  // hostile store might hold them.
  int hostile = 0;
  for (const char* path : {"a/../../../escape", "../outside.md", "notes/../../../up.md"}) {
    synckit::NodeRecord node;
    node.brainId = demo_;
    node.nodeId = "hostile-" + std::to_string(++hostile);
    node.path = path;
    node.contentVersion = 1;
    store_->upsertNode(node);
    store_->recordChange(synckit::SyncItemIdentifier::node(demo_, node.nodeId), false);
  }

  ASSERT_NO_FATAL_FAILURE(runProviderOnce());
  // A later remote file below the linked folder is refused too.
  auto provider = startProvider();
  serverWrite(demo_, "notes/later.md", "must not land in the target");
  serverWrite(demo_, "later.md", "lands in the mirror");
  ASSERT_NO_FATAL_FAILURE(syncStore());
  ASSERT_TRUE(
      eventually([&] { return fs::exists(mirror_ / "Demo/later.md"); }, std::chrono::seconds(30)));
  EXPECT_EQ(provider->stop(SIGTERM), 0);

  EXPECT_EQ(entryNames(box_), std::set<std::string>{"mirror"});
  EXPECT_EQ(entryNames(root_ / "target"), std::set<std::string>{});
  EXPECT_TRUE(fs::is_symlink(fs::symlink_status(mirror_ / "Demo/notes")));
  EXPECT_EQ(mirrorFolders(), std::set<std::string>{"Demo"});
  // Everything not behind the link is mirrored as usual.
  Tree expected = serverTree(demo_);
  std::erase_if(expected, [](const auto& item) { return item.first.starts_with("notes"); });
  expected["notes"] = {'l', ""};
  ASSERT_NO_FATAL_FAILURE(expectMirrored("Demo", expected, std::chrono::seconds(1)));

  // Each item left out reaches the application's recent sync errors, once.
  const auto reported = [&](const std::string& text) {
    std::lock_guard lock(syncErrorsMutex_);
    return std::count(syncErrors_.begin(), syncErrors_.end(), text);
  };
  const std::string invalid = ": Its path is not a valid path in a brain.";
  EXPECT_TRUE(eventually(
      [&] { return reported("Could not show \u201ca/../../../escape\u201d" + invalid) == 1; },
      std::chrono::seconds(10)));
  EXPECT_EQ(reported("Could not show \u201c../outside.md\u201d" + invalid), 1);
  std::lock_guard lock(syncErrorsMutex_);
  EXPECT_TRUE(std::any_of(syncErrors_.begin(), syncErrors_.end(), [](const std::string& text) {
    return text.starts_with("Could not show \u201cnotes/later.md\u201d");
  })) << ::testing::PrintToString(syncErrors_);
}

}  // namespace
}  // namespace halvark::e2e
