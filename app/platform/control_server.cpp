#include "app/platform/control_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/platform/control_protocol.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/base/logger.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/atomic_file.h"

namespace halvark {
namespace {

using nlohmann::json;

const synckit::Logger& logger() {
  static const synckit::Logger instance(std::string(synckit::AppIdentity::applicationIdentifier),
                                        "control");
  return instance;
}

sockaddr_un socketAddress(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& text = path.native();
  if (text.size() >= sizeof address.sun_path) throw synckit::PosixError(ENAMETOOLONG);
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

// True when the peer of `fd` runs as `user`.
bool peerIs(int fd, uid_t user) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 &&
         size == sizeof credentials && credentials.uid == user;
}

// The answer to one line of a client.
json answer(const ControlServer::Handler& handler, const std::string& line,
            const std::shared_ptr<ControlServer::Channel>& channel, std::stop_token stop) {
  json request = json::parse(line, nullptr, false);
  if (!request.is_object() || !request.contains("command") || !request["command"].is_string())
    return ControlProtocol::failure("Not a request Halvark understands.");
  try {
    return handler(request, channel, std::move(stop));
  } catch (const std::exception& error) {
    return ControlProtocol::failure(error.what());
  }
}

}  // namespace

ControlServer::Channel::~Channel() { ::close(fd_); }

bool ControlServer::Channel::send(const json& message) {
  std::lock_guard lock(mutex_);
  if (!open_) return false;
  try {
    ControlProtocol::writeLine(fd_, message);
    return true;
  } catch (const synckit::Error&) {
    open_ = false;
    return false;
  }
}

void ControlServer::Channel::close() {
  std::lock_guard lock(mutex_);
  open_ = false;
}

void ControlServer::Channel::interrupt() const { ::shutdown(fd_, SHUT_RDWR); }

ControlServer::ControlServer(std::filesystem::path socket, Handler handler, uid_t allowedUser)
    : socket_(std::move(socket)), handler_(std::move(handler)), allowedUser_(allowedUser) {
  const sockaddr_un address = socketAddress(socket_);
  synckit::AtomicFile::createDirectories(socket_.parent_path(), 0700);
  struct stat existing {};
  if (::lstat(socket_.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode)) throw synckit::PosixError(EEXIST);
    if (::unlink(socket_.c_str()) != 0 && errno != ENOENT) throw synckit::PosixError(errno);
  }

  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  try {
    if (listenFd_ < 0 || wakeFd_ < 0) throw synckit::PosixError(errno);
    // The socket file takes the socket's mode at bind, so no other user can
    // connect even for a moment; the chmod after it covers file systems
    // that do not.
    if (::fchmod(listenFd_, 0600) != 0) throw synckit::PosixError(errno);
    if (::bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      throw synckit::PosixError(errno);
    struct stat bound {};
    if (::chmod(socket_.c_str(), 0600) != 0 || ::lstat(socket_.c_str(), &bound) != 0 ||
        ::listen(listenFd_, 16) != 0) {
      const int code = errno;
      ::unlink(socket_.c_str());
      throw synckit::PosixError(code);
    }
    device_ = bound.st_dev;
    inode_ = bound.st_ino;
  } catch (...) {
    if (listenFd_ >= 0) ::close(listenFd_);
    if (wakeFd_ >= 0) ::close(wakeFd_);
    throw;
  }
  acceptor_ = std::jthread([this] { accept(); });
}

ControlServer::~ControlServer() {
  stop();
  ::close(listenFd_);
  ::close(wakeFd_);
}

void ControlServer::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopped_) return;
    stopped_ = true;
  }
  ::eventfd_write(wakeFd_, 1);
  if (acceptor_.joinable()) acceptor_.join();
  // No connection is added once the acceptor has ended.
  for (auto& connection : connections_) {
    connection->thread.request_stop();
    connection->channel->interrupt();
  }
  for (auto& connection : connections_) {
    if (connection->thread.joinable()) connection->thread.join();
  }
  connections_.clear();
  // Only our own socket goes: a file that replaced it is not ours.
  struct stat status {};
  if (::lstat(socket_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_)
    ::unlink(socket_.c_str());
}

void ControlServer::accept() {
  pollfd watched[2] = {{wakeFd_, POLLIN, 0}, {listenFd_, POLLIN, 0}};
  for (;;) {
    if (::poll(watched, 2, -1) < 0) {
      if (errno == EINTR) continue;
      logger().error("Stopped serving the control socket: poll failed with errno %d", errno);
      return;
    }
    if (watched[0].revents != 0) return;
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;  // a client that gave up, or out of descriptors for now
    if (!peerIs(fd, allowedUser_)) {
      logger().error("Refused a control connection from another user");
      ::close(fd);
      continue;
    }
    reapFinished();
    auto connection = std::make_unique<Connection>();
    connection->channel = std::make_shared<Channel>(fd);
    Connection& added = *connection;
    std::lock_guard lock(mutex_);
    connections_.push_back(std::move(connection));
    added.thread = std::jthread([this, &added](std::stop_token stop) { serve(added, stop); });
  }
}

void ControlServer::reapFinished() {
  std::lock_guard lock(mutex_);
  std::erase_if(connections_, [](const std::unique_ptr<Connection>& connection) {
    return connection->finished.load();  // its thread is joined as it goes
  });
}

void ControlServer::serve(Connection& connection, std::stop_token stop) {
  synckit::CancellationScope scope(stop);
  const std::shared_ptr<Channel>& channel = connection.channel;
  ControlProtocol::LineBuffer buffer;
  pollfd watched[2] = {{wakeFd_, POLLIN, 0}, {channel->fd_, POLLIN, 0}};
  try {
    while (!stop.stop_requested()) {
      if (auto line = buffer.take()) {
        json reply = answer(handler_, *line, channel, stop);
        if (!reply.is_null() && !channel->send(reply)) break;
        continue;
      }
      if (::poll(watched, 2, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (watched[0].revents != 0) break;
      if (!buffer.fill(channel->fd_)) break;
    }
  } catch (const std::exception& error) {
    channel->send(ControlProtocol::failure(error.what()));
  }
  channel->close();
  connection.finished = true;
}

}  // namespace halvark
