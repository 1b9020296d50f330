#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "synckit/base/error.h"
#include "synckit/base/logger.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/platform/sync_signal.h"

namespace synckit {
namespace {

// At most this many signals are taken off the queue before the handler runs
// and a stop is looked for again, so a flood cannot hold the thread.
constexpr int maxSignalsPerCall = 64;

// Closes the descriptor on every path out of a scope.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const noexcept { return fd_; }

 private:
  int fd_;
};

// A name is one directory entry: anything else would reach outside the
// socket directory.
bool isPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

sockaddr_un socketAddress(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& text = path.native();
  // sun_path holds the path and its terminating NUL.
  if (text.size() >= sizeof address.sun_path) throw PosixError(ENAMETOOLONG);
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

const sockaddr* asSockaddr(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

int datagramSocket() { return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

// True when a process holds a socket bound at `address`. A socket file
// whose process died refuses connections.
bool someoneListens(const sockaddr_un& address) {
  Descriptor probe(datagramSocket());
  if (probe.get() < 0) throw PosixError(errno);
  return ::connect(probe.get(), asSockaddr(address), sizeof address) == 0;
}

// Binds `fd` at `path`, replacing a socket file nobody listens on. The
// replacement runs under an exclusive lock on the directory, so that of two
// listeners starting at once only one removes the dead socket and the other
// then finds the first one live instead of removing it in turn.
void bindReplacingDeadSocket(int fd, const std::filesystem::path& path,
                             const sockaddr_un& address) {
  if (::bind(fd, asSockaddr(address), sizeof address) == 0) return;
  if (errno != EADDRINUSE) throw PosixError(errno);

  Descriptor directory(::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() < 0) throw PosixError(errno);
  while (::flock(directory.get(), LOCK_EX) != 0) {
    if (errno != EINTR) throw PosixError(errno);
  }
  for (;;) {
    if (someoneListens(address)) throw PosixError(EADDRINUSE);
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode))
      throw PosixError(EADDRINUSE);  // not ours to remove
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw PosixError(errno);
    if (::bind(fd, asSockaddr(address), sizeof address) == 0) return;
    // A listener that binds without the lock (finding the name free) can
    // come in between; look again whether it is alive.
    if (errno != EADDRINUSE) throw PosixError(errno);
  }
}

}  // namespace

namespace SyncSignal {

std::string name() { return std::string(AppIdentity::applicationIdentifier) + ".sync-now"; }

std::filesystem::path socketDirectory() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime != '\0') {
    std::filesystem::path directory(runtime);
    if (directory.is_absolute()) return directory / "halvark";
  }
  return AppGroup::containerURL();
}

bool post(std::string_view name) noexcept {
  try {
    if (!isPlainName(name)) return false;
    const sockaddr_un address = socketAddress(socketDirectory() / name);
    Descriptor fd(datagramSocket());
    if (fd.get() < 0) return false;
    const char signal = 1;
    // Non-blocking: a full queue (EAGAIN) means the listener has signals
    // pending already, and this one would add nothing.
    return ::sendto(fd.get(), &signal, 1, MSG_NOSIGNAL, asSockaddr(address), sizeof address) == 1;
  } catch (...) {
    return false;
  }
}

}  // namespace SyncSignal

// What the listener thread uses. Shared between the listener and its thread,
// so that a thread left to finish on its own (stop() called from the
// handler) never touches a destroyed listener.
struct SyncSignalListener::Channel {
  explicit Channel(std::function<void()> handler) : handler(std::move(handler)) {}
  ~Channel() {
    if (socketFd >= 0) ::close(socketFd);
    if (wakeFd >= 0) ::close(wakeFd);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  void run() {
    pollfd watched[2] = {{wakeFd, POLLIN, 0}, {socketFd, POLLIN, 0}};
    while (!stopped) {
      if (::poll(watched, 2, -1) < 0) {
        if (errno == EINTR) continue;
        Logger(std::string(AppIdentity::applicationIdentifier), "signal")
            .error("Stopped listening for %s: poll failed with errno %d", name.c_str(), errno);
        return;
      }
      if (watched[0].revents != 0) return;
      int received = 0;
      char signal = 0;
      while (received < maxSignalsPerCall && ::recv(socketFd, &signal, 1, MSG_DONTWAIT) >= 0)
        ++received;
      if (received == 0 || stopped) continue;
      try {
        handler();
      } catch (const std::exception& error) {
        Logger(std::string(AppIdentity::applicationIdentifier), "signal")
            .error("The handler for %s failed: %s", name.c_str(), error.what());
      } catch (...) {
        Logger(std::string(AppIdentity::applicationIdentifier), "signal")
            .error("The handler for %s failed", name.c_str());
      }
    }
  }

  std::function<void()> handler;
  std::string name;
  int socketFd = -1;
  int wakeFd = -1;
  std::atomic<bool> stopped{false};
  // The socket file as bound, to tell it from one another listener put in
  // its place.
  dev_t device = 0;
  ino_t inode = 0;
};

SyncSignalListener::SyncSignalListener(std::string name, std::function<void()> handler)
    : name_(std::move(name)) {
  if (!isPlainName(name_)) throw PosixError(EINVAL);
  const std::filesystem::path directory = SyncSignal::socketDirectory();
  path_ = directory / name_;
  const sockaddr_un address = socketAddress(path_);
  AtomicFile::createDirectories(directory, 0700);

  auto channel = std::make_shared<Channel>(std::move(handler));
  channel->name = name_;
  channel->socketFd = datagramSocket();
  if (channel->socketFd < 0) throw PosixError(errno);
  channel->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (channel->wakeFd < 0) throw PosixError(errno);
  bindReplacingDeadSocket(channel->socketFd, path_, address);

  try {
    struct stat status {};
    if (::lstat(path_.c_str(), &status) != 0) throw PosixError(errno);
    channel->device = status.st_dev;
    channel->inode = status.st_ino;
    thread_ = std::thread([channel] { channel->run(); });
  } catch (const std::system_error& error) {
    ::unlink(path_.c_str());
    throw PosixError(error.code().value());
  } catch (...) {
    ::unlink(path_.c_str());
    throw;
  }
  channel_ = std::move(channel);
}

SyncSignalListener::~SyncSignalListener() { stop(); }

void SyncSignalListener::stop() {
  if (!channel_) return;
  channel_->stopped = true;
  const eventfd_t wake = 1;
  // Cannot fail in a way that matters: the counter is far from overflowing.
  ::eventfd_write(channel_->wakeFd, wake);
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
  // Our socket is still open here, so a listener starting now sees the name
  // taken and cannot have put its own file in place yet; only ours goes.
  struct stat status {};
  if (::lstat(path_.c_str(), &status) == 0 && status.st_dev == channel_->device &&
      status.st_ino == channel_->inode)
    ::unlink(path_.c_str());
  channel_.reset();
}

}  // namespace synckit
