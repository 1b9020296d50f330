#include "synckit/platform/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

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
  Bytes content;
  std::uint8_t buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      throwErrno();
    }
    if (n == 0) break;
    content.insert(content.end(), buffer, buffer + n);
  }
  return content;
}

bool remove(const std::filesystem::path& file) {
  if (::unlink(file.c_str()) == 0) return true;
  if (errno == ENOENT) return false;
  throwErrno();
}

void createDirectories(const std::filesystem::path& directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  // Both error categories carry errno values on this platform.
  if (error) throw PosixError(error.value() > 0 ? error.value() : EIO);
}

}  // namespace synckit::AtomicFile
