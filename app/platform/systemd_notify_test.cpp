#include "app/platform/systemd_notify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

TEST(SystemdNotifyTest, TellsTheServiceManagerOnItsSocket) {
  synckit::testing::TemporaryDirectory directory;
  const auto path = directory / "notify";
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  synckit::testing::ScopedEnvironment environment;
  environment.set("NOTIFY_SOCKET", path.string());

  SystemdNotify::ready();
  SystemdNotify::stopping();
  char message[64] = {};
  ASSERT_EQ(::recv(fd, message, sizeof message, MSG_DONTWAIT), 7);
  EXPECT_EQ(std::string(message, 7), "READY=1");
  ASSERT_EQ(::recv(fd, message, sizeof message, MSG_DONTWAIT), 10);
  EXPECT_EQ(std::string(message, 10), "STOPPING=1");
  ::close(fd);
}

}  // namespace
}  // namespace halvark
