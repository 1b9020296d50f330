#include "app/platform/control_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <condition_variable>
#include <cstring>
#include <fstream>
#include <future>

#include "app/platform/control_client.h"
#include "app/platform/control_protocol.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using nlohmann::json;
using synckit::testing::TemporaryDirectory;

mode_t modeOf(const std::filesystem::path& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// Leaves a socket file behind at `path` as a killed instance does.
void leaveDeadSocket(const std::filesystem::path& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
}

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

// Answers "echo" with an event and the request, fails "fail", and leaves
// everything else to the default.
json echo(const json& request, const std::shared_ptr<ControlServer::Channel>& channel,
          std::stop_token) {
  const std::string command = request["command"];
  if (command == "fail") throw synckit::Error("It failed.");
  channel->send({{"event", "progress"}, {"step", 1}});
  return ControlProtocol::success({{"echo", request}});
}

TEST(ControlServerTest, AnswersItsUsersRequestsLineByLine) {
  TemporaryDirectory directory;
  const auto socket = directory / "runtime" / "halvark" / "control.sock";
  {
    ControlServer first(socket, echo);
    EXPECT_EQ(modeOf(socket), 0600u);
    EXPECT_EQ(modeOf(socket.parent_path()), 0700u);
  }
  leaveDeadSocket(socket);
  ControlServer server(socket, echo);

  ControlClient client(socket);
  std::vector<json> events;
  const json request = {{"command", "echo"}, {"text", "caf\u00e9 \u201cquoted\u201d"}};
  json answer = client.request(request, [&](const json& event) { events.push_back(event); });
  EXPECT_EQ(answer, json({{"ok", true}, {"echo", request}}));
  EXPECT_EQ(events, std::vector<json>({{{"event", "progress"}, {"step", 1}}}));

  // The same connection takes more requests, also after failures.
  EXPECT_EQ(client.request({{"command", "fail"}}), ControlProtocol::failure("It failed."));
  EXPECT_EQ(client.request(json::array({"command"})),
            ControlProtocol::failure("Not a request Halvark understands."));
  EXPECT_EQ(client.request({{"command", "echo"}})["ok"], true);
}

TEST(ControlServerTest, RefusesAnotherUserAndNeverReplacesWhatIsNoSocket) {
  TemporaryDirectory directory;
  const auto socket = directory / "control.sock";
  {
    ControlServer server(socket, echo, ::getuid() + 1);
    ControlClient client(socket);
    EXPECT_EQ(errorOf([&] {
                client.request({{"command", "echo"}});
              }),
              "Halvark stopped before answering.");
  }
  std::ofstream(directory / "file") << "not a socket";
  EXPECT_EQ(errorOf([&] { ControlServer(directory / "file", echo); }),
            synckit::PosixError(EEXIST).what());
  EXPECT_TRUE(std::filesystem::is_regular_file(directory / "file"));
}

TEST(ControlServerTest, StoppingEndsWaitingRequestsAndRemovesTheSocket) {
  TemporaryDirectory directory;
  const auto socket = directory / "control.sock";
  std::promise<void> waiting;
  ControlServer server(socket, [&](const json&, const std::shared_ptr<ControlServer::Channel>&,
                                   std::stop_token stop) {
    std::mutex mutex;
    std::condition_variable_any never;
    std::unique_lock lock(mutex);
    waiting.set_value();
    never.wait(lock, stop, [] { return false; });
    return ControlProtocol::success();
  });
  auto pending = std::async(std::launch::async, [&] {
    ControlClient client(socket);
    return errorOf([&] { client.request({{"command", "sign-in"}}); });
  });
  waiting.get_future().wait();
  server.stop();
  EXPECT_EQ(pending.get(), "Halvark stopped before answering.");
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(socket)));
  EXPECT_EQ(errorOf([&] { ControlClient client(socket); }), "Halvark is not running.");
}

}  // namespace
}  // namespace halvark
