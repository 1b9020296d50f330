#pragma once

#include <filesystem>
#include <type_traits>
#include <utility>

#include "synckit/base/cancellation.h"
#include "synckit/platform/file_lock.h"

namespace synckit {

// Lets at most one sync pass run at a time across every process that shares
// the container: the application's loops and the file provider all take the
// lock file at `url` (normally AppGroup::executionLockURL()) around their
// work. Two run() calls in one process exclude each other too, since each
// opens the file afresh. Any thread may call run(); it blocks that thread
// while another holder has the lock, until the holder releases it or the
// thread's work is cancelled.
struct SyncExecutionOwner {
  std::filesystem::path url;

  // Runs `body` while holding the lock and returns its result. The lock is
  // released whether `body` returns or throws. Throws CancellationError
  // (without running `body`) when cancelled before the body starts, and
  // PosixError when the lock file cannot be opened or locked. The lock's
  // directory must exist; run() creates none.
  template <class F>
  std::invoke_result_t<F> run(F&& body) const {
    FileLock lock(url);
    checkCancellation();
    return std::forward<F>(body)();
  }

  bool operator==(const SyncExecutionOwner&) const = default;
};

}  // namespace synckit
