#include "synckit/platform/sync_execution_owner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "synckit/base/error.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using namespace std::chrono_literals;
using testing::TemporaryDirectory;

std::size_t openDescriptorCount() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

// True when nobody holds the lock: takes and drops it without waiting.
bool lockIsFree(const std::filesystem::path& file) {
  int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
  ::close(fd);
  return free;
}

struct Pipe {
  int fds[2];
  Pipe() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  int readEnd() const { return fds[0]; }
  int writeEnd() const { return fds[1]; }
};

char readByte(int fd) {
  char c = 0;
  return ::read(fd, &c, 1) == 1 ? c : '\0';
}

void writeByte(int fd, char c) { ASSERT_EQ(::write(fd, &c, 1), 1); }

TEST(SyncExecutionOwnerTest, ExcludesABodyInAnotherProcess) {
  TemporaryDirectory temp;
  SyncExecutionOwner owner{temp / "sync-execution.lock"};
  Pipe fromChild;
  Pipe toChild;

  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    owner.run([&] {
      writeByte(fromChild.writeEnd(), 'L');  // holding the lock
      readByte(toChild.readEnd());           // until told to let go
      // Give the parent time to be well inside its wait, then say "about to
      // release" while still holding the lock.
      std::this_thread::sleep_for(100ms);
      writeByte(fromChild.writeEnd(), 'R');
    });
    ::_exit(0);
  }

  ASSERT_EQ(readByte(fromChild.readEnd()), 'L');
  EXPECT_FALSE(lockIsFree(owner.url));
  writeByte(toChild.writeEnd(), 'G');
  int result = owner.run([&] {
    // The child wrote 'R' before releasing; had our body started while it
    // held the lock, there would be nothing to read yet.
    int flags = ::fcntl(fromChild.readEnd(), F_GETFL);
    ::fcntl(fromChild.readEnd(), F_SETFL, flags | O_NONBLOCK);
    return readByte(fromChild.readEnd()) == 'R' ? 42 : -1;
  });
  EXPECT_EQ(result, 42);

  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(SyncExecutionOwnerTest, RunsInOneProcessTakeTurns) {
  TemporaryDirectory temp;
  SyncExecutionOwner owner{temp / "sync-execution.lock"};
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  int total = 0;  // guarded by the lock alone; a data race here shows under TSan

  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) {
        owner.run([&] {
          if (inside.fetch_add(1) != 0) overlapped = true;
          ++total;
          std::this_thread::sleep_for(1ms);
          inside.fetch_sub(1);
        });
      }
    });
  }
  threads.clear();
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(total, 20);
}

TEST(SyncExecutionOwnerTest, ReleasesTheLockAndFileWhenTheBodyThrows) {
  TemporaryDirectory temp;
  SyncExecutionOwner owner{temp / "sync-execution.lock"};
  std::size_t descriptorsBefore = openDescriptorCount();

  EXPECT_THROW(owner.run([]() -> int { throw std::runtime_error("body failed"); }),
               std::runtime_error);
  EXPECT_TRUE(lockIsFree(owner.url));
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
  EXPECT_EQ(std::filesystem::status(owner.url).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  std::string value = owner.run([] { return std::string("second"); });
  EXPECT_EQ(value, "second");
  EXPECT_TRUE(lockIsFree(owner.url));
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
}

TEST(SyncExecutionOwnerTest, CancellingAWaitingRunEndsItWithoutTheBody) {
  TemporaryDirectory temp;
  SyncExecutionOwner owner{temp / "sync-execution.lock"};
  int holder = ::open(owner.url.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  std::size_t descriptorsBefore = openDescriptorCount();

  std::atomic<bool> bodyRan{false};
  std::atomic<bool> cancelled{false};
  std::atomic<bool> finished{false};
  std::jthread waiter([&](std::stop_token stop) {
    CancellationScope scope(stop);
    try {
      owner.run([&] { bodyRan = true; });
    } catch (const CancellationError&) {
      cancelled = true;
    }
    finished = true;
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(finished);

  auto requested = std::chrono::steady_clock::now();
  waiter.request_stop();
  waiter.join();
  // Generous bound: a run that ignored the stop would wait for the holder forever.
  EXPECT_LT(std::chrono::steady_clock::now() - requested, 2s);
  EXPECT_TRUE(cancelled);
  EXPECT_FALSE(bodyRan);
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore);

  // A stop requested before the run begins never runs the body either, even
  // when the lock is free.
  ::close(holder);
  std::stop_source stopped;
  stopped.request_stop();
  CancellationScope scope(stopped.get_token());
  EXPECT_THROW(owner.run([&] { bodyRan = true; }), CancellationError);
  EXPECT_FALSE(bodyRan);
  EXPECT_TRUE(lockIsFree(owner.url));
}

TEST(SyncExecutionOwnerTest, MissingDirectoryFailsWithThePosixErrorBeforeTheBody) {
  TemporaryDirectory temp;
  SyncExecutionOwner owner{temp / "missing" / "sync-execution.lock"};
  bool bodyRan = false;
  EXPECT_EQ(testing::thrownBy<PosixError>([&] { owner.run([&] { bodyRan = true; }); }).code(),
            ENOENT);
  EXPECT_FALSE(bodyRan);
  EXPECT_FALSE(std::filesystem::exists(temp / "missing"));
}

TEST(SyncExecutionOwnerTest, TryLockGivesNothingWhileTheLockIsHeldAndKeepsNoDescriptor) {
  TemporaryDirectory temp;
  const auto file = temp / "provider.lock";
  auto first = FileLock::tryLock(file);
  ASSERT_NE(first, nullptr);
  const std::size_t descriptorsBefore = openDescriptorCount();
  EXPECT_EQ(FileLock::tryLock(file), nullptr);
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
  first.reset();
  EXPECT_NE(FileLock::tryLock(file), nullptr);
  EXPECT_THROW(FileLock::tryLock(temp / "missing" / "provider.lock"), PosixError);
}

}  // namespace
}  // namespace synckit
