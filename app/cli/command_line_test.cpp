#include "app/cli/command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <thread>

#include "app/platform/control_protocol.h"
#include "app/platform/control_server.h"
#include "synckit/platform/file_lock.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using CommandLine::Invocation;
using nlohmann::json;
using Verb = Invocation::Verb;

constexpr const char* authorizationURL = "http://127.0.0.1:1/authorize?state=s";
constexpr const char* callbackURL = "halvark://oauth/callback?code=c&state=s";

std::variant<Invocation, int> parse(std::vector<std::string> arguments,
                                    std::string* err = nullptr) {
  std::ostringstream out;
  std::ostringstream errors;
  auto result = CommandLine::parse(arguments, out, errors);
  if (err != nullptr) *err = out.str() + errors.str();
  return result;
}

class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe(fds_), 0); }
  ~Pipe() {
    ::close(fds_[0]);
    closeWriting();
  }
  int reading() const { return fds_[0]; }
  void write(const std::string& text) {
    EXPECT_EQ(::write(fds_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void closeWriting() {
    if (fds_[1] >= 0) ::close(fds_[1]);
    fds_[1] = -1;
  }

 private:
  int fds_[2] = {-1, -1};
};

// A stand-in for the instance: records the requests and answers as the
// test says. A sign-in presents its URL and waits for a callback or a
// cancellation.
class FakeInstance {
 public:
  FakeInstance()
      : server_(directory_ / "control.sock",
                [this](const json& request, const std::shared_ptr<ControlServer::Channel>& channel,
                       std::stop_token stop) { return handle(request, channel, stop); }) {}

  std::filesystem::path socket() const { return directory_ / "control.sock"; }
  std::filesystem::path lock() const {
    return directory_ / std::string(ControlProtocol::instanceLockName);
  }

  std::vector<json> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  json signInFailure;  // the sign-in fails with it at once when set
  json statusObject = json::object();

 private:
  json handle(const json& request, const std::shared_ptr<ControlServer::Channel>& channel,
              std::stop_token stop) {
    std::unique_lock lock(mutex_);
    requests_.push_back(request);
    const std::string command = request["command"];
    if (command == "status") return ControlProtocol::success({{"status", statusObject}});
    if (command == "resync" && request["brain"] == "Nowhere")
      return ControlProtocol::failure("No brain named \u201cNowhere\u201d.");
    if (command == "open-url") {
      if (request["url"] != callbackURL)
        return ControlProtocol::failure("No sign-in is waiting for this response.");
      outcome_ = ControlProtocol::success({{"member", "demo"}});
    }
    if (command == "cancel-sign-in") outcome_ = ControlProtocol::failure("cancelled");
    changed_.notify_all();
    if (command != "sign-in") return ControlProtocol::success();
    if (!signInFailure.is_null()) return signInFailure;
    if (request["noBrowser"] == true)
      channel->send({{"event", "authorizationURL"}, {"url", authorizationURL}});
    changed_.wait(lock, stop, [this] { return !outcome_.is_null(); });
    return outcome_;
  }

  synckit::testing::TemporaryDirectory directory_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::vector<json> requests_;
  json outcome_;
  ControlServer server_;
};

Invocation invocation(Verb verb, std::string argument = "") {
  Invocation result;
  result.verb = verb;
  result.argument = std::move(argument);
  return result;
}

Invocation withFlags(Invocation base, bool noBrowser, bool json) {
  base.noBrowser = noBrowser;
  base.json = json;
  return base;
}

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

Outcome run(const Invocation& invocation, const std::filesystem::path& socket, int input = -1,
            int interrupt = -1) {
  std::ostringstream out;
  std::ostringstream err;
  Outcome result;
  result.status = CommandLine::run(
      invocation, socket, {.out = out, .err = err, .input = input, .interrupt = interrupt});
  result.out = out.str();
  result.err = err.str();
  return result;
}

TEST(CommandLineTest, ParsesTheVerbsAndTheirArguments) {
  EXPECT_EQ(std::get<Invocation>(parse({"daemon"})).verb, Verb::daemon);
  EXPECT_EQ(std::get<Invocation>(parse({"sign-in", "--no-browser"})),
            withFlags(invocation(Verb::signIn), true, false));
  EXPECT_EQ(std::get<Invocation>(parse({"status", "--json"})),
            withFlags(invocation(Verb::status), false, true));
  EXPECT_EQ(std::get<Invocation>(parse({"open-url", callbackURL})),
            invocation(Verb::openURL, callbackURL));
  EXPECT_EQ(std::get<Invocation>(parse({"resync", "My Notes"})),
            invocation(Verb::resync, "My Notes"));
  EXPECT_EQ(std::get<Invocation>(parse({"inbox", "none"})), invocation(Verb::inbox, "none"));

  std::string printed;
  EXPECT_EQ(std::get<int>(parse({"--version"}, &printed)), 0);
  EXPECT_EQ(printed, "Halvark 0.1.0 (1)\n");
  EXPECT_NE(std::get<int>(parse({"resync"}, &printed)), 0);
  EXPECT_NE(printed.find("brain is required"), std::string::npos) << printed;
  EXPECT_NE(std::get<int>(parse({"status", "extra"}, &printed)), 0);
  EXPECT_NE(std::get<int>(parse({"sync-later"}, &printed)), 0);
}

TEST(CommandLineTest, EveryVerbSaysSoWhenHalvarkIsNotRunning) {
  synckit::testing::TemporaryDirectory directory;
  for (Verb verb : {Verb::signIn, Verb::openURL, Verb::status, Verb::syncNow, Verb::resync,
                    Verb::inbox, Verb::signOut, Verb::quit}) {
    const Outcome result = run(invocation(verb, "x"), directory / "control.sock");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "Halvark is not running.\n");
  }
}

TEST(CommandLineTest, SignInPrintsTheAddressTakesPastedCallbacksAndCancelsOnInterrupt) {
  {
    FakeInstance instance;
    Pipe input;
    input.write("  halvark://oauth/callback?code=old \n\n");
    input.write(std::string(callbackURL) + "\r\n");
    const Outcome result =
        run(withFlags(invocation(Verb::signIn), true, false), instance.socket(), input.reading());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, std::string(authorizationURL) + "\nSigned in as demo.\n");
    EXPECT_NE(result.err.find("No sign-in is waiting for this response.\n"), std::string::npos);
    const auto requests = instance.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], json({{"command", "sign-in"}, {"noBrowser", true}}));
    EXPECT_EQ(requests[1]["url"], "halvark://oauth/callback?code=old");
  }
  {
    FakeInstance instance;
    instance.signInFailure = ControlProtocol::failure("Sign-in failed: the server said no");
    const Outcome result = run(invocation(Verb::signIn), instance.socket());
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "Sign-in failed: the server said no\n");
  }
  {
    FakeInstance instance;
    Pipe interrupt;
    interrupt.write("!");
    const Outcome result =
        run(invocation(Verb::signIn), instance.socket(), -1, interrupt.reading());
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "");
    // The cancellation may reach the instance before the sign-in it ends.
    const auto requests = instance.requests();
    EXPECT_EQ(std::count(requests.begin(), requests.end(), json({{"command", "cancel-sign-in"}})),
              1);
  }
}

TEST(CommandLineTest, VerbsSendTheirRequestsAndQuitWaitsUntilTheInstanceIsGone) {
  FakeInstance instance;
  EXPECT_EQ(run(invocation(Verb::syncNow), instance.socket()).out, "Syncing every brain now.\n");
  EXPECT_EQ(run(invocation(Verb::inbox, "none"), instance.socket()).status, 0);
  EXPECT_EQ(run(invocation(Verb::inbox, "Notes"), instance.socket()).status, 0);
  const Outcome refused = run(invocation(Verb::resync, "Nowhere"), instance.socket());
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "No brain named \u201cNowhere\u201d.\n");

  // The instance holds its lock until it has stopped completely.
  auto held = synckit::FileLock::tryLock(instance.lock());
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    held.reset();
  });
  const auto started = std::chrono::steady_clock::now();
  const Outcome quit = run(invocation(Verb::quit), instance.socket());
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));
  release.join();
  EXPECT_EQ(quit.status, 0);
  EXPECT_EQ(quit.out, "Halvark has quit.\n");

  EXPECT_EQ(instance.requests(), (std::vector<json>{
                                     {{"command", "sync-now"}},
                                     {{"command", "inbox"}, {"brain", nullptr}},
                                     {{"command", "inbox"}, {"brain", "Notes"}},
                                     {{"command", "resync"}, {"brain", "Nowhere"}},
                                     {{"command", "quit"}},
                                 }));
}

TEST(CommandLineTest, StatusPrintsTheObjectOrTheSameAsText) {
  const synckit::Timestamp now = *synckit::Timestamp::parse("2025-03-01T12:00:00.000Z");
  const json status = {
      {"session", "signedIn"},
      {"member", "demo"},
      {"errorMessage", nullptr},
      {"state", "error"},
      {"brains",
       {{{"id", "11111111-2222-4333-8444-555555555555"},
         {"name", "Demo"},
         {"folder", "/home/u/Halvark/Demo"},
         {"state", "idle"},
         {"lastSyncAt", "2025-03-01T11:55:00.000Z"},
         {"uploadErrorCount", 0},
         {"error", nullptr}},
        {{"id", "AAAAAAAA-2222-4333-8444-555555555555"},
         {"name", "Notes"},
         {"folder", "/home/u/Halvark/Notes"},
         {"state", "error"},
         {"lastSyncAt", nullptr},
         {"uploadErrorCount", 2},
         {"error", "2 upload errors"}}}},
      {"inboxBrainId", "11111111-2222-4333-8444-555555555555"},
      {"recentSyncErrors", {"Could not upload a.txt"}},
      {"conflictNotices", json::array()},
      {"progress", {{"filesLeft", 3}, {"bytesLeft", 4096}}},
  };
  EXPECT_EQ(CommandLine::statusText(status, now),
            "Signed in: demo\n"
            "Sync error: 2 upload errors\n"
            "Downloading 3 files (4.1 KB) left\n"
            "  Demo \u2014 5 minutes ago\n"
            "      /home/u/Halvark/Demo\n"
            "      Up to date\n"
            "  Notes \u2014 Not synced yet \u2014 Error \u2014 \u26a0 2\n"
            "      /home/u/Halvark/Notes\n"
            "      Sync error: 2 upload errors\n"
            "Inbox brain: Demo\n"
            "Recent sync errors:\n"
            "  Could not upload a.txt\n");
  EXPECT_EQ(CommandLine::statusText({{"session", "signedOut"}, {"errorMessage", "Offline."}}, now),
            "Signed out\nOffline.\n");

  FakeInstance instance;
  instance.statusObject = status;
  const Outcome printed = run(withFlags(invocation(Verb::status), false, true), instance.socket());
  EXPECT_EQ(printed.status, 0);
  EXPECT_EQ(json::parse(printed.out), status);
}

}  // namespace
}  // namespace halvark
