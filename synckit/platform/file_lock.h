#pragma once

#include <filesystem>
#include <memory>

namespace synckit {

// An exclusive advisory lock (flock) on a file, held from construction to
// destruction. The constructor waits for another holder, in this process or
// another, polling every 20 ms; the wait honours the thread's ambient
// cancellation. Used by SyncExecutionOwner; one thread owns an instance.
class FileLock {
 public:
  // Opens (creating it, mode 0600) and locks `file`. Throws PosixError when
  // the file cannot be opened or locked, CancellationError when the wait is
  // cancelled; the file is closed again in both cases.
  explicit FileLock(const std::filesystem::path& file);
  // Opens and locks `file` without waiting: null while another holder has
  // it (the file is closed again). Throws PosixError as the constructor.
  static std::unique_ptr<FileLock> tryLock(const std::filesystem::path& file);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  struct Locked {};
  FileLock(Locked, int fd) : fd_(fd) {}

  int fd_;
};

}  // namespace synckit
