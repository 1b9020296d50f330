#include "app/platform/control_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace halvark {
namespace {

synckit::Error stoppedBeforeAnswering() {
  return synckit::Error("Halvark stopped before answering.");
}

}  // namespace

ControlClient::ControlClient(const std::filesystem::path& socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket.native().size() >= sizeof address.sun_path) throw synckit::PosixError(ENAMETOOLONG);
  std::memcpy(address.sun_path, socket.c_str(), socket.native().size() + 1);
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw synckit::PosixError(errno);
  while (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int code = errno;
    if (code == EINTR) continue;
    ::close(fd_);
    // A missing directory or file, or a socket nobody listens on.
    if (code == ENOENT || code == ECONNREFUSED || code == ENOTDIR) throw NotRunningError();
    throw synckit::PosixError(code);
  }
}

ControlClient::~ControlClient() { ::close(fd_); }

void ControlClient::send(const nlohmann::json& request) {
  try {
    ControlProtocol::writeLine(fd_, request);
  } catch (const synckit::PosixError& error) {
    if (error.code() == EPIPE || error.code() == ECONNRESET) throw stoppedBeforeAnswering();
    throw;
  }
}

std::optional<nlohmann::json> ControlClient::receive(std::span<const int> interrupts) {
  std::vector<pollfd> watched{{fd_, POLLIN, 0}};
  for (int fd : interrupts) watched.push_back({fd, POLLIN, 0});
  for (;;) {
    if (auto line = buffer_.take()) {
      nlohmann::json message = nlohmann::json::parse(*line, nullptr, false);
      if (!message.is_object()) throw synckit::Error("Halvark answered something unreadable.");
      return message;
    }
    if (::poll(watched.data(), watched.size(), -1) < 0) {
      if (errno == EINTR) continue;
      throw synckit::PosixError(errno);
    }
    for (std::size_t i = 1; i < watched.size(); ++i) {
      if (watched[i].revents != 0) return std::nullopt;
    }
    try {
      if (!buffer_.fill(fd_)) throw stoppedBeforeAnswering();
    } catch (const synckit::PosixError& error) {
      if (error.code() == ECONNRESET) throw stoppedBeforeAnswering();
      throw;
    }
  }
}

nlohmann::json ControlClient::request(const nlohmann::json& request,
                                      const std::function<void(const nlohmann::json&)>& onEvent) {
  send(request);
  for (;;) {
    nlohmann::json line = *receive();
    if (line.contains("ok")) return line;
    if (onEvent) onEvent(line);
  }
}

}  // namespace halvark
