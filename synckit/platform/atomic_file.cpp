#include "synckit/platform/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>
#include <vector>

#include "synckit/base/crash_point.h"
#include "synckit/base/error.h"

namespace synckit::AtomicFile {
namespace {

// Closes the descriptor on every path out of a function.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const noexcept { return fd_; }
  // Closes now so that a failing close (a late write error on some file
  // systems) is reported rather than swallowed.
  void closeChecked() {
    int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0 && errno != EINTR) throw PosixError(errno);
  }

 private:
  int fd_;
};

[[noreturn]] void throwErrno() { throw PosixError(errno != 0 ? errno : EIO); }

void writeAll(int fd, std::span<const std::uint8_t> data) {
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      throwErrno();
    }
    done += static_cast<std::size_t>(n);
  }
}

Bytes readAll(int fd) {
  Bytes content;
  std::uint8_t buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      throwErrno();
    }
    if (n == 0) break;
    content.insert(content.end(), buffer, buffer + n);
  }
  return content;
}

}  // namespace

void write(const std::filesystem::path& file, std::span<const std::uint8_t> data, mode_t mode) {
  // The temporary name starts with a dot so that directory scans that look
  // for well-formed entry names never mistake it for one.
  std::string pattern =
      (file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string();
  FileDescriptor fd(::mkostemp(pattern.data(), O_CLOEXEC));
  if (fd.get() < 0) throwErrno();
  try {
    if (::fchmod(fd.get(), mode) != 0) throwErrno();
    writeAll(fd.get(), data);
    if (::fsync(fd.get()) != 0) throwErrno();
    fd.closeChecked();
    crashPoint();
    if (::rename(pattern.c_str(), file.c_str()) != 0) throwErrno();
  } catch (...) {
    ::unlink(pattern.c_str());
    throw;
  }
}

std::optional<Bytes> read(const std::filesystem::path& file) {
  FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno == ENOENT) return std::nullopt;
    throwErrno();
  }
  return readAll(fd.get());
}

std::optional<Bytes> readPrivate(const std::filesystem::path& file) {
  // O_NONBLOCK keeps a FIFO planted in the file's place from blocking the open.
  FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (fd.get() < 0) {
    if (errno == ENOENT) return std::nullopt;
    throwErrno();
  }
  struct stat status;
  if (::fstat(fd.get(), &status) != 0) throwErrno();
  if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & 077) != 0) {
    throw PosixError(EPERM);
  }
  return readAll(fd.get());
}

bool remove(const std::filesystem::path& file) {
  crashPoint();
  if (::unlink(file.c_str()) == 0) return true;
  if (errno == ENOENT) return false;
  throwErrno();
}

void createDirectories(const std::filesystem::path& directory, mode_t mode) {
  std::vector<std::filesystem::path> missing;
  for (auto path = directory; !path.empty(); path = path.parent_path()) {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0) break;
    if (errno != ENOENT) throwErrno();
    missing.push_back(path);
    if (path == path.parent_path()) break;
  }
  // Outermost first; another process may create one at the same time.
  for (auto path = missing.rbegin(); path != missing.rend(); ++path) {
    if (::mkdir(path->c_str(), mode) != 0 && errno != EEXIST) throwErrno();
  }
}

}  // namespace synckit::AtomicFile
