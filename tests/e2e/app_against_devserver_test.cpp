// The application as users and scripts meet it: `halvark daemon`, its
// halvark-provider and the devserver as real processes, driven only through
// the `halvark` verbs. The test acts as the browser of a headless sign-in.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "synckit/base/uuid.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "tests/e2e/devserver_session.h"
#include "tests/e2e/mirror_tree.h"

extern char** environ;

namespace halvark::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using synckit::Uuid;
using synckit::testing::eventually;
using namespace std::chrono_literals;

// How a process ended and what it printed.
struct Outcome {
  int status = -1;  // 128 + signal for a killed process
  std::string out;
  std::string err;
};

// A child process of the test. Standard output and error go to pipes that
// finish() drains, or are appended to `log`; standard input is /dev/null.
class ChildProcess {
 public:
  ChildProcess(std::vector<std::string> arguments, const std::optional<fs::path>& log = {}) {
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (log) {
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log->c_str(),
                                       O_WRONLY | O_CREAT | O_APPEND, 0600);
      posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    } else {
      EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
      EXPECT_EQ(::pipe2(err, O_CLOEXEC), 0);
      posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
      posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    }
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (!log) {
      ::close(out[1]);
      ::close(err[1]);
      out_ = out[0];
      err_ = err[0];
    }
    if (spawned != 0) throw std::runtime_error("could not start " + arguments[0]);
  }
  ~ChildProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
    if (err_ >= 0) ::close(err_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) { ::kill(pid_, number); }

  // The next line of standard output; empty when none came within `limit`.
  std::string readLine(std::chrono::milliseconds limit = 30s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      if (const auto end = out.find('\n'); end != std::string::npos) {
        std::string line = out.substr(0, end);
        out.erase(0, end + 1);
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left <= 0ms || !readSome(out_, out, static_cast<int>(left.count()))) return "";
    }
  }

  // Drains the output and waits for the exit; status -1 when the process was
  // still running after `limit`.
  Outcome finish(std::chrono::milliseconds limit = 60s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string err;
    bool outOpen = out_ >= 0;
    bool errOpen = err_ >= 0;
    while ((outOpen || errOpen) && std::chrono::steady_clock::now() < deadline) {
      if (outOpen) outOpen = readSome(out_, out, 10);
      if (errOpen) errOpen = readSome(err_, err, 10);
    }
    Outcome outcome{.status = -1, .out = out, .err = err};
    if (const auto status = waitForExit(deadline - std::chrono::steady_clock::now()))
      outcome.status = *status;
    out.clear();
    return outcome;
  }

  std::optional<int> waitForExit(std::chrono::steady_clock::duration limit) {
    std::optional<int> result;
    eventually(
        [&] {
          int status = 0;
          if (pid_ <= 0 || ::waitpid(pid_, &status, WNOHANG) != pid_) return false;
          pid_ = -1;
          result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
          return true;
        },
        std::chrono::duration_cast<std::chrono::milliseconds>(limit), 20ms);
    return result;
  }

  std::string out;  // read but not yet taken by readLine()

 private:
  // Appends what `fd` has within `timeoutMs`; false at its end.
  static bool readSome(int fd, std::string& into, int timeoutMs) {
    pollfd ready{fd, POLLIN, 0};
    if (::poll(&ready, 1, timeoutMs) <= 0) return true;
    char chunk[4096];
    const ssize_t count = ::read(fd, chunk, sizeof chunk);
    if (count <= 0) return false;
    into.append(chunk, static_cast<std::size_t>(count));
    return true;
  }

  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
};

// The processes of halvark-provider serving `container`.
std::set<pid_t> providersOf(const fs::path& container) {
  std::set<pid_t> found;
  const std::string wanted = "HALVARK_CONTAINER=" + container.string();
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code ignored;
    if (fs::read_symlink(entry.path() / "exe", ignored) != fs::path(HALVARK_PROVIDER_PATH))
      continue;
    const std::string environment = readAll(entry.path() / "environ");
    for (std::size_t start = 0; start < environment.size();) {
      const std::size_t end = std::min(environment.find('\0', start), environment.size());
      if (environment.compare(start, end - start, wanted) == 0) found.insert(std::stoi(name));
      start = end + 1;
    }
  }
  return found;
}

class AppAgainstDevServerTest : public ::testing::Test, protected DevServerSession {
 protected:
  void SetUp() override {
    for (const char* folder : {"container", "runtime", "data", "config/halvark"})
      fs::create_directories(root_ / folder);
    container_ = root_ / "container";
    mirror_ = root_ / "mirror";
    std::ofstream(root_ / "config/halvark/defaults.json")
        << json({{"HVBaseURLOverride", server_.baseURL()}}).dump();
    // No Secret Service on the bus: the tokens go to the container's file.
    environment_.set("HALVARK_CONTAINER", container_.string())
        .set("XDG_RUNTIME_DIR", (root_ / "runtime").string())
        .set("XDG_DATA_HOME", (root_ / "data").string())
        .set("XDG_CONFIG_HOME", (root_ / "config").string())
        .set("HALVARK_MIRROR", mirror_.string())
        .set("HALVARK_PROVIDER_PATH", HALVARK_PROVIDER_PATH)
        .set("HALVARK_BROWSER", "/bin/false")
        .set("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (root_ / "no-bus").string())
        .set("JOURNAL_STREAM", std::nullopt)
        .set("NOTIFY_SOCKET", std::nullopt);
  }

  void TearDown() override {
    daemon_.reset();
    // Whatever a case that failed part-way left running.
    for (pid_t pid : providersOf(container_)) ::kill(pid, SIGKILL);
    if (HasFailure()) std::cerr << "halvark daemon's output:\n" << readAll(log()) << '\n';
  }

  fs::path log() const { return root_ / "daemon.log"; }

  Outcome halvark(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), HALVARK_EXECUTABLE_PATH);
    return ChildProcess(arguments).finish();
  }

  // Starts `halvark daemon` and waits until it answers.
  void startDaemon() {
    daemon_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{HALVARK_EXECUTABLE_PATH, "daemon"}, log());
    ASSERT_TRUE(eventually([&] { return halvark({"status"}).status == 0; }, 30s, 50ms));
  }

  json status() {
    const Outcome outcome = halvark({"status", "--json"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return json::parse(outcome.out, nullptr, false);
  }

  // `halvark sign-in --no-browser`, with the test as the browser and the
  // URL-scheme handler.
  void signIn() {
    ChildProcess signingIn({HALVARK_EXECUTABLE_PATH, "sign-in", "--no-browser"});
    const std::string url = signingIn.readLine();
    ASSERT_TRUE(url.starts_with(server_.baseURL())) << url;
    const std::string callback = signInInBrowser(url);
    ASSERT_TRUE(callback.starts_with("halvark://oauth/callback?")) << callback;
    const Outcome delivered = halvark({"open-url", callback});
    EXPECT_EQ(delivered.status, 0) << delivered.err;
    const Outcome outcome = signingIn.finish();
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(outcome.out.starts_with("Signed in as ")) << outcome.out;
  }

  synckit::testing::ScopedEnvironment environment_;
  synckit::testing::TemporaryDirectory root_;
  fs::path container_;
  fs::path mirror_;
  std::unique_ptr<ChildProcess> daemon_;
};

TEST_F(AppAgainstDevServerTest, SignsInSyncsAndStopsAsScriptsExpect) {
  const Outcome notRunning = halvark({"status"});
  EXPECT_EQ(notRunning.status, 1);
  EXPECT_EQ(notRunning.err, "Halvark is not running.\n");

  ASSERT_NO_FATAL_FAILURE(startDaemon());
  json fresh = status();
  EXPECT_EQ(fresh, json({{"session", "signedOut"},
                         {"member", nullptr},
                         {"errorMessage", nullptr},
                         {"state", "idle"},
                         {"brains", json::array()},
                         {"inboxBrainId", nullptr},
                         {"recentSyncErrors", json::array()},
                         {"conflictNotices", json::array()},
                         {"progress", nullptr}}));
  const Outcome second = halvark({"daemon"});
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, "Halvark is already running.\n");
  EXPECT_EQ(halvark({"open-url", "halvark://oauth/callback?code=x&state=y"}).err,
            "No sign-in is waiting for this response.\n");

  // Signed in, every granted brain syncs without being asked to.
  const json state = control("GET", "/state");
  const json demo = state.at("brains").at(0);
  const Uuid demoId = *Uuid::parse(demo.at("id").get<std::string>());
  const std::string demoName = demo.at("name");
  const auto write = [&](const std::string& path, const std::string& content) {
    control("POST", "/brains/" + demoId.toLowerString() + "/write",
            {{"path", path}, {"content", content}});
  };
  write("Ünïcødé/日本語.md", "ノート\r\nline two\n");
  ASSERT_NO_FATAL_FAILURE(signIn());
  const json registered = control("GET", "/state");
  ASSERT_EQ(registered["devices"].size(), 1u);
  ASSERT_NO_FATAL_FAILURE(
      expectMirrored(mirror_ / demoName, serverTree(server_.baseURL(), demoId)));
  EXPECT_EQ(readAll(mirror_ / demoName / "Ünïcødé/日本語.md"), "ノート\r\nline two\n");
  json brain;
  ASSERT_TRUE(eventually([&] {
    const json signedIn = status();
    if (signedIn["brains"].size() != 1 || signedIn["brains"][0]["lastSyncAt"].is_null())
      return false;
    EXPECT_EQ(signedIn["session"], "signedIn");
    EXPECT_TRUE(signedIn["member"].is_string());
    brain = signedIn["brains"][0];
    return true;
  }));
  EXPECT_EQ(brain["id"], demoId.toString());
  EXPECT_EQ(brain["name"], demoName);
  EXPECT_EQ(brain["folder"], (mirror_ / demoName).string());
  EXPECT_EQ(brain["uploadErrorCount"], 0);
  EXPECT_EQ(brain["error"], nullptr);
  EXPECT_EQ(brain.size(), 7u) << brain;

  // The verbs that act on the brains. A change on the server arrives at
  // once after sync-now, long before the next regular pass.
  write("after sync-now.txt", "fetched now");
  EXPECT_EQ(halvark({"sync-now"}).status, 0);
  ASSERT_NO_FATAL_FAILURE(
      expectMirrored(mirror_ / demoName, serverTree(server_.baseURL(), demoId), 10s));
  EXPECT_EQ(halvark({"resync", demoName}).status, 0);
  const Outcome unknown = halvark({"resync", "No Such Brain"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.err, "No brain named \u201cNo Such Brain\u201d.\n");
  EXPECT_EQ(halvark({"inbox", "none"}).status, 0);
  EXPECT_EQ(status()["inboxBrainId"], nullptr);
  EXPECT_EQ(halvark({"inbox", demoId.toLowerString()}).status, 0);
  EXPECT_EQ(status()["inboxBrainId"], demoId.toString());

  // quit ends the daemon and its provider; the session stays.
  ASSERT_FALSE(providersOf(container_).empty());
  const Outcome quit = halvark({"quit"});
  EXPECT_EQ(quit.status, 0) << quit.err;
  EXPECT_EQ(daemon_->waitForExit(10s), 0);
  EXPECT_TRUE(providersOf(container_).empty());
  EXPECT_EQ(halvark({"sync-now"}).err, "Halvark is not running.\n");
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  EXPECT_EQ(status()["session"], "signedIn");

  // After kill -9 the next start takes over the socket and the lock.
  daemon_->signal(SIGKILL);
  EXPECT_EQ(daemon_->waitForExit(10s), 128 + SIGKILL);
  // Its provider does not outlive it.
  EXPECT_TRUE(eventually([&] { return providersOf(container_).empty(); }, 10s, 50ms));
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  EXPECT_EQ(status()["session"], "signedIn");

  // Signing out stops syncing and leaves the files; signing in again
  // reuses the registered client and device.
  const Outcome signedOut = halvark({"sign-out"});
  EXPECT_EQ(signedOut.status, 0) << signedOut.err;
  EXPECT_EQ(status()["session"], "signedOut");
  EXPECT_TRUE(eventually([&] { return providersOf(container_).empty(); }, 20s, 50ms));
  EXPECT_EQ(readAll(mirror_ / demoName / "Ünïcødé/日本語.md"), "ノート\r\nline two\n");
  ASSERT_NO_FATAL_FAILURE(signIn());
  const json again = control("GET", "/state");
  EXPECT_EQ(again["clients"], registered["clients"]);
  EXPECT_EQ(again["devices"], registered["devices"]);
  EXPECT_EQ(status()["session"], "signedIn");
  // A clean stop (which a sanitizer build would fail on a leak).
  EXPECT_EQ(halvark({"quit"}).status, 0);
  EXPECT_EQ(daemon_->waitForExit(10s), 0);
}

}  // namespace
}  // namespace halvark::e2e
