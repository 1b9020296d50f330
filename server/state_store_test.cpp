#include "server/state_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "server/test_server.h"

extern char** environ;

namespace devserver::testing {
namespace {

using nlohmann::json;

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/devserver-test-XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

TEST(StateStore, RestartKeepsTokensDevicesCursorsAndContent) {
  TempDir dir;
  Options options = quietOptions();
  options.stateFile = dir.file("state.sqlite");

  Session session;
  std::string brainId;
  std::string cursor;
  {
    TestServer first(options);
    session = first.signIn();
    brainId = first.createBrain("Kept", "kept");
    std::string base = "/api/sync/brains/" + brainId;
    Reply upload = first.send("POST", base + "/blobs?deviceId=" + session.deviceId, "blob bytes",
                              "application/octet-stream", session.accessToken);
    ASSERT_EQ(upload.status, 200);
    Reply blob = first.sendJson("PUT", base + "/file",
                                {{"deviceId", session.deviceId},
                                 {"path", "b.bin"},
                                 {"blobHash", upload.json["hash"]},
                                 {"blobSize", 10}},
                                session.accessToken);
    ASSERT_EQ(blob.status, 200) << blob.body;
    ASSERT_EQ(first
                  .sendJson("PUT", base + "/file",
                            {{"deviceId", session.deviceId}, {"path", "t.md"}, {"body", "text"}},
                            session.accessToken)
                  .status,
              200);
    cursor = first.get(base + "/changes?deviceId=" + session.deviceId, session.accessToken)
                 .json["cursor"];
    first.control("POST", "/brains/" + brainId + "/read-only", {{"path", "ro"}});
  }

  TestServer second(options);
  std::string base = "/api/sync/brains/" + brainId;
  Reply feed = second.get(base + "/changes?cursor=" + cursor + "&deviceId=" + session.deviceId,
                          session.accessToken);
  ASSERT_EQ(feed.status, 200) << feed.body;
  EXPECT_EQ(feed.json["reset"], false) << "the cursor is still known";
  EXPECT_EQ(second.get(base + "/file?path=t.md&at=x", session.accessToken).json["content"], "text");
  EXPECT_EQ(second.get(base + "/file?path=b.bin&at=x", session.accessToken).body, "blob bytes");
  EXPECT_EQ(second
                .sendJson("PUT", base + "/file",
                          {{"deviceId", session.deviceId}, {"path", "ro/x.md"}, {"body", "x"}},
                          session.accessToken)
                .errorCode(),
            "FORBIDDEN_SUBTREE");
  Reply refreshed = second.postForm("/oauth/token", {{"grant_type", "refresh_token"},
                                                     {"client_id", session.clientId},
                                                     {"refresh_token", session.refreshToken}});
  EXPECT_EQ(refreshed.status, 200);
}

TEST(StateStore, DamagedFileIsReportedNotReplaced) {
  TempDir dir;
  {
    StateStore store(dir.file("state.sqlite"));
    store.saveState("{\"teamId\": 5}");
  }
  Options options = quietOptions();
  options.stateFile = dir.file("state.sqlite");
  try {
    DevServer server(options);
    FAIL() << "a damaged state file was accepted";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("is damaged"), std::string::npos) << error.what();
  }
  StateStore reopened(dir.file("state.sqlite"));
  EXPECT_EQ(reopened.loadState(), "{\"teamId\": 5}");

  std::string garbage = dir.file("not-a-database");
  std::FILE* f = std::fopen(garbage.c_str(), "w");
  std::fputs("this is not SQLite at all, just text that is long enough to matter", f);
  std::fclose(f);
  options.stateFile = garbage;
  EXPECT_THROW(DevServer{options}, std::runtime_error);
}

// Runs the real executable; the first line of its standard output is the URL.
class ServerProcess {
 public:
  explicit ServerProcess(std::vector<std::string> args) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    args.insert(args.begin(), DEVSERVER_EXECUTABLE);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pid_, DEVSERVER_EXECUTABLE, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fdopen(fds[0], "r");
    char line[512] = {};
    if (std::fgets(line, sizeof line, out_)) url_ = line;
    if (!url_.empty() && url_.back() == '\n') url_.pop_back();
  }
  ~ServerProcess() {
    if (pid_ > 0) stop();
    if (out_) std::fclose(out_);
  }
  int stop() {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  const std::string& url() const { return url_; }
  int port() const { return std::stoi(url_.substr(url_.rfind(':') + 1)); }

 private:
  pid_t pid_ = 0;
  std::FILE* out_ = nullptr;
  std::string url_;
};

TEST(StateStore, ExecutablePrintsItsURLAndKeepsTheSeedAcrossRestarts) {
  TempDir dir;
  std::vector<std::string> args = {"--port",  "0",       "--base-path",        "/hv",
                                   "--quiet", "--state", dir.file("s.sqlite"), "--seed",
                                   "demo"};
  std::string headCursor;
  {
    ServerProcess process(args);
    const std::string& url = process.url();
    ASSERT_EQ(url.rfind("http://127.0.0.1:", 0), 0u) << url;
    ASSERT_EQ(url.substr(url.size() - 3), "/hv") << url;
    ASSERT_GT(process.port(), 0) << url;
    httplib::Client client("127.0.0.1", process.port());
    auto state = client.Get("/hv/_control/state");
    ASSERT_TRUE(state);
    json brains = json::parse(state->body)["brains"];
    ASSERT_EQ(brains.size(), 1u);
    EXPECT_EQ(brains[0]["slug"], "demo");
    headCursor = brains[0]["headCursor"];
    auto tree = client.Get("/hv/_control/brains/" + brains[0]["id"].get<std::string>() + "/tree");
    ASSERT_TRUE(tree);
    bool hasBlob = false;
    json nodes = json::parse(tree->body)["nodes"];
    for (const auto& node : nodes) hasBlob |= node["kind"] == "blob";
    EXPECT_TRUE(hasBlob);
    EXPECT_EQ(process.stop(), 0);
  }
  ServerProcess again(args);
  httplib::Client client("127.0.0.1", again.port());
  auto state = client.Get("/hv/_control/state");
  ASSERT_TRUE(state);
  json brains = json::parse(state->body)["brains"];
  ASSERT_EQ(brains.size(), 1u) << "seeding again must not duplicate the sample";
  EXPECT_EQ(brains[0]["headCursor"], headCursor);
}

}  // namespace
}  // namespace devserver::testing
