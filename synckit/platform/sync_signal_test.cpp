#include "synckit/platform/sync_signal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "synckit/base/error.h"
#include "synckit/platform/app_identity.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using namespace std::chrono_literals;
using testing::thrownBy;

// Waits, with a generous bound, for the handler to have run `count` times.
bool reaches(const std::atomic<int>& calls, int count) {
  for (auto until = std::chrono::steady_clock::now() + 10s; calls < count;) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

TEST(SyncSignalTest, ListenerHearsThreadsAndOtherProcessesUntilStopped) {
  testing::TemporaryDirectory runtime;
  testing::ScopedEnvironment environment;
  environment.set("XDG_RUNTIME_DIR", runtime.path().string());
  const std::string name = SyncSignal::name();
  const std::filesystem::path socket = runtime / "halvark" / name;
  EXPECT_EQ(name, std::string(AppIdentity::applicationIdentifier) + ".sync-now");
  EXPECT_FALSE(SyncSignal::post(name));  // nobody listens
  const std::string longName(120, 'n');
  EXPECT_EQ(thrownBy<PosixError>([&] { SyncSignalListener(longName, [] {}); }).code(),
            ENAMETOOLONG);

  // The child is forked before the listener's thread exists and posts once
  // told that the listener is up.
  int go[2];
  ASSERT_EQ(::pipe2(go, O_CLOEXEC), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char byte = 0;
    ::_exit(::read(go[0], &byte, 1) == 1 && SyncSignal::post(name) ? 0 : 1);
  }
  ::close(go[0]);

  std::atomic<int> calls{0};
  auto listener = std::make_unique<SyncSignalListener>(name, [&] { ++calls; });
  EXPECT_EQ(std::filesystem::status(socket.parent_path()).permissions(),
            std::filesystem::perms::owner_all);
  ASSERT_EQ(::write(go[1], "g", 1), 1);
  ::close(go[1]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child's post was lost";
  ASSERT_TRUE(reaches(calls, 1));
  std::atomic<bool> posted{false};
  std::thread([&] { posted = SyncSignal::post(name); }).join();
  EXPECT_TRUE(posted);
  ASSERT_TRUE(reaches(calls, 2));

  EXPECT_EQ(thrownBy<PosixError>([&] { SyncSignalListener(name, [] {}); }).code(), EADDRINUSE);

  listener->stop();
  const int heard = calls;
  EXPECT_FALSE(SyncSignal::post(name));
  EXPECT_FALSE(std::filesystem::exists(socket));
  listener.reset();
  EXPECT_EQ(calls, heard);

  // A socket file left by a process that died takes no signal and gives way
  // to the next listener.
  int dead = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, socket.c_str());
  ASSERT_EQ(::bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(dead);
  EXPECT_FALSE(SyncSignal::post(name));
  SyncSignalListener next(name, [&] { ++calls; });
  EXPECT_TRUE(SyncSignal::post(name));
  EXPECT_TRUE(reaches(calls, heard + 1));
}

}  // namespace
}  // namespace synckit
