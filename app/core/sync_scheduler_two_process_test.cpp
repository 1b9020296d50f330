// The scheduler beside a second process on the same container, as the file
// provider runs: the execution lock that process holds keeps every pass
// waiting, and the sync-now signal it posts wakes every sleeping loop.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "app/core/sync_scheduler.h"
#include "app/core/testing/fake_file_provider_manager.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/sync_execution_owner.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/meta_key.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/fake_clock.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using synckit::BrainSyncStatus;
using synckit::HTTPRequest;
using synckit::HTTPResponse;
using synckit::Uuid;
using synckit::testing::FakeHTTPTransport;

constexpr const char* base = "https://sync.example.test";
const Uuid brainA = *Uuid::parse("1A000000-0000-4000-8000-000000000001");
const Uuid brainB = *Uuid::parse("1B000000-0000-4000-8000-000000000002");

// What the test and its child say to each other, one byte at a time.
constexpr char locked = 'L', release = 'R', post = 'P', posted = 'S', notHeard = 'N';

bool sendByte(int fd, char byte) { return ::write(fd, &byte, 1) == 1; }

// The next byte from `fd`; absent at end of file, on error or after 10 s, so
// that a child that died or hangs fails the test instead of stalling it.
std::optional<char> receiveByte(int fd) {
  pollfd ready{fd, POLLIN, 0};
  if (::poll(&ready, 1, 10'000) != 1) return std::nullopt;
  char byte = 0;
  if (::read(fd, &byte, 1) != 1) return std::nullopt;
  return byte;
}

using synckit::testing::eventually;

// The second process. It shares nothing with the test but the container,
// the runtime directory and two pipes, and leaves with _exit so that none of
// the test's state is torn down twice.
[[noreturn]] void runSecondProcess(int in, int out) {
  int status = 0;
  try {
    synckit::SyncExecutionOwner{synckit::AppGroup::executionLockURL()}.run([&] {
      if (!sendByte(out, locked) || receiveByte(in) != release) {
        throw std::runtime_error("the test went away");
      }
    });
    if (receiveByte(in) != post) ::_exit(3);
    const bool heard = synckit::SyncSignal::post(synckit::SyncSignal::name());
    sendByte(out, heard ? posted : notHeard);
  } catch (...) {
    status = 2;
  }
  ::_exit(status);
}

class SyncSchedulerTwoProcessTest : public ::testing::Test {
 protected:
  // Forks before anything of the test starts a thread.
  void SetUp() override {
    environment.set("HALVARK_CONTAINER", container.path().string())
        .set("XDG_RUNTIME_DIR", runtime.path().string());
    std::filesystem::create_directories(synckit::AppGroup::executionLockURL().parent_path());
    int down[2], up[2];
    ASSERT_EQ(::pipe2(down, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(up, O_CLOEXEC), 0);
    child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(down[1]);
      ::close(up[0]);
      runSecondProcess(down[0], up[1]);
    }
    ::close(down[0]);
    ::close(up[1]);
    toChild = down[1];
    fromChild = up[0];
  }

  // Closing our ends lets a child that still waits on us see the end of
  // file and leave.
  void TearDown() override {
    if (toChild >= 0) ::close(toChild);
    if (fromChild >= 0) ::close(fromChild);
    if (child > 0) ::waitpid(child, nullptr, 0);
  }

  int childExitStatus() {
    int status = -1;
    const pid_t reaped = ::waitpid(child, &status, 0);
    child = -1;
    return reaped > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  synckit::testing::ScopedEnvironment environment;
  synckit::testing::TemporaryDirectory container;
  synckit::testing::TemporaryDirectory runtime;
  pid_t child = -1;
  int toChild = -1;
  int fromChild = -1;
};

TEST_F(SyncSchedulerTwoProcessTest, PassesWaitForTheOtherProcessAndItsSignalWakesEveryLoop) {
  ASSERT_EQ(receiveByte(fromChild), locked);

  auto store = synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
  store->setMeta(synckit::MetaKey::deviceId, "dev-1");
  store->upsertBrain({brainA, "alpha", "alpha", std::nullopt});
  store->upsertBrain({brainB, "beta", "beta", std::nullopt});

  std::mutex mutex;
  std::map<Uuid, int> fetches;
  std::vector<std::vector<BrainSyncStatus>> statuses;
  auto fetchesOf = [&](const Uuid& brain) {
    std::lock_guard lock(mutex);
    return fetches[brain];
  };
  auto statusCount = [&] {
    std::lock_guard lock(mutex);
    return statuses.size();
  };

  FakeHTTPTransport transport;
  transport.setHandler([&](const HTTPRequest& request) {
    for (const Uuid& brain : {brainA, brainB}) {
      if (request.url.find("/brains/" + brain.toLowerString() + "/changes?") == std::string::npos)
        continue;
      std::lock_guard lock(mutex);
      ++fetches[brain];
      return FakeHTTPTransport::json(200, R"({"reset":false,"entries":[],"cursor":"c1"})");
    }
    return HTTPResponse{404, {}, {}};
  });
  synckit::testing::InMemoryTokenStore tokens{synckit::TokenSet{"a1", "r1"}};
  synckit::TokenManager tokenManager{base, transport, tokens, [] { return std::string("c"); }};
  tokenManager.restoreSession();
  synckit::SyncAPIClient api{base, transport, tokenManager};
  testing::FakeFileProviderManager fileProvider;
  DomainController domainController{*store, api, tokenManager, fileProvider};
  synckit::testing::FakeClock clock;
  SyncScheduler::Callbacks callbacks;
  callbacks.onStatus = [&](std::vector<BrainSyncStatus> rows, std::optional<Uuid>) {
    std::lock_guard lock(mutex);
    statuses.push_back(std::move(rows));
  };
  SyncScheduler scheduler{*store, api, tokenManager, domainController, callbacks, clock};

  // Both loops enter their passes and wait at the lock the other process
  // holds. Nothing marks the moment a loop starts waiting there, so the
  // lock stays held for a few of its 20 ms retries before it is released.
  scheduler.start();
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    for (const auto& rows : statuses) {
      if (rows.size() == 2 && rows[0].state == BrainSyncStatus::State::syncing() &&
          rows[1].state == BrainSyncStatus::State::syncing())
        return true;
    }
    return false;
  }));
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_EQ(fetchesOf(brainA) + fetchesOf(brainB), 0);
  ASSERT_TRUE(sendByte(toChild, release));

  // Released, both passes run and the loops go to sleep for 30 s of a clock
  // that does not move.
  ASSERT_TRUE(eventually([&] { return fetchesOf(brainA) == 1 && fetchesOf(brainB) == 1; }));
  ASSERT_TRUE(clock.awaitWaiters(2));
  EXPECT_EQ(store->cursor(brainA), "c1");
  EXPECT_EQ(store->cursor(brainB), "c1");

  // The other process's signal publishes the status and wakes both loops
  // for one pass each.
  const std::size_t before = statusCount();
  ASSERT_TRUE(sendByte(toChild, post));
  ASSERT_EQ(receiveByte(fromChild), posted);
  ASSERT_TRUE(eventually(
      [&] { return fetchesOf(brainA) == 2 && fetchesOf(brainB) == 2 && clock.waiters() == 2; }));
  {
    std::lock_guard lock(mutex);
    // The signal's own publication comes before the pokes, so it finds both
    // brains idle; each pass then adds its syncing and its idle rows.
    ASSERT_EQ(statuses.size(), before + 5);
    for (const BrainSyncStatus& row : statuses[before]) {
      EXPECT_EQ(row.state, BrainSyncStatus::State::idle());
      EXPECT_TRUE(row.lastSyncAt.has_value());
    }
  }
  scheduler.stop();
  EXPECT_EQ(childExitStatus(), 0);
}

}  // namespace
}  // namespace halvark
