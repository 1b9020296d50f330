#include "synckit/platform/file_lock.h"

#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"

namespace synckit {
namespace {

constexpr std::chrono::milliseconds retryInterval{20};

// Callers switch on the code, so a value the C library cannot name is
// reported as a plain I/O error.
PosixError posixError(int code) {
  return PosixError(strerrordesc_np(code) != nullptr ? code : EIO);
}

}  // namespace

FileLock::FileLock(const std::filesystem::path& file)
    : fd_(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
  if (fd_ < 0) throw posixError(errno);
  try {
    for (;;) {
      checkCancellation();
      if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return;
      int code = errno;
      if (code != EWOULDBLOCK && code != EINTR) throw posixError(code);
      sleepFor(retryInterval);
    }
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

std::unique_ptr<FileLock> FileLock::tryLock(const std::filesystem::path& file) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) throw posixError(errno);
  while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int code = errno;
    if (code == EINTR) continue;
    ::close(fd);
    if (code == EWOULDBLOCK) return nullptr;
    throw posixError(code);
  }
  return std::unique_ptr<FileLock>(new FileLock(Locked{}, fd));
}

FileLock::~FileLock() {
  ::flock(fd_, LOCK_UN);
  ::close(fd_);
}

}  // namespace synckit
