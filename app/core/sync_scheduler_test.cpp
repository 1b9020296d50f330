#include "app/core/sync_scheduler.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "app/core/testing/fake_file_provider_manager.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/sqlite_database.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/fake_clock.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using synckit::HTTPRequest;
using synckit::HTTPResponse;
using synckit::Uuid;
using synckit::testing::FakeHTTPTransport;

constexpr const char* base = "https://sync.example.test";
const Uuid brainA = *Uuid::parse("0A000000-0000-4000-8000-000000000001");
const Uuid brainB = *Uuid::parse("0B000000-0000-4000-8000-000000000002");
const std::string forbiddenText =
    "This computer's registration was not accepted by the server. Sign out and sign in again.";

using synckit::testing::eventually;

std::string brainJSON(const Uuid& id, const std::string& slug) {
  return R"({"id":")" + id.toLowerString() + R"(","teamId":"t","name":")" + slug + R"(","slug":")" +
         slug + R"("})";
}

// A sync service for two brains: empty change pages with cursor "c<n>",
// answers that tests can replace per brain, and a gate that holds one
// brain's change requests until the test opens it (or the caller stops).
class FakeSyncService {
 public:
  HTTPResponse answer(const HTTPRequest& request) {
    std::unique_lock lock(mutex_);
    if (request.url == std::string(base) + "/api/sync/brains") {
      return FakeHTTPTransport::json(200, R"({"brains":[)" + brains_ + "]}");
    }
    for (const Uuid& brain : {brainA, brainB}) {
      const std::string prefix =
          std::string(base) + "/api/sync/brains/" + brain.toLowerString() + "/changes?";
      if (!request.url.starts_with(prefix)) continue;
      ++fetches_[brain];
      cursors_[brain].push_back(request.url.find("cursor=") == std::string::npos
                                    ? std::string("none")
                                    : request.url.substr(prefix.size() + 7, 2));
      changed_.notify_all();
      if (gated_ == brain) {
        changed_.wait(lock, synckit::currentStopToken(), [&] { return gated_ != brain; });
        synckit::checkCancellation();  // as the real transport aborts a transfer
      }
      if (auto failure = failures_.find(brain); failure != failures_.end()) {
        return FakeHTTPTransport::json(
            failure->second.first,
            R"({"error":{"code":")" + failure->second.second + R"(","message":"m"}})");
      }
      return FakeHTTPTransport::json(200, R"({"reset":false,"entries":[],"cursor":"c)" +
                                              std::to_string(fetches_[brain]) + R"("})");
    }
    if (request.url.find("/pending") != std::string::npos) {
      return FakeHTTPTransport::json(200, "{}");
    }
    return HTTPResponse{404, {}, {}};
  }

  int fetches(const Uuid& brain) {
    std::lock_guard lock(mutex_);
    return fetches_[brain];
  }
  std::vector<std::string> cursors(const Uuid& brain) {
    std::lock_guard lock(mutex_);
    return cursors_[brain];
  }
  void gate(std::optional<Uuid> brain) {
    std::lock_guard lock(mutex_);
    gated_ = brain;
    changed_.notify_all();
  }
  void fail(const Uuid& brain, int status, std::string code) {
    std::lock_guard lock(mutex_);
    failures_[brain] = {status, std::move(code)};
  }
  void setBrains(std::string brains) {
    std::lock_guard lock(mutex_);
    brains_ = std::move(brains);
  }

 private:
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::map<Uuid, int> fetches_;
  std::map<Uuid, std::vector<std::string>> cursors_;
  std::map<Uuid, std::pair<int, std::string>> failures_;
  std::optional<Uuid> gated_;
  std::string brains_ = brainJSON(brainA, "alpha") + "," + brainJSON(brainB, "beta");
};

// What the four callbacks received.
struct Published {
  std::mutex mutex;
  std::vector<std::vector<synckit::BrainSyncStatus>> statuses;
  std::vector<std::string> syncErrors;
  std::vector<std::string> problems;

  std::size_t statusCount() {
    std::lock_guard lock(mutex);
    return statuses.size();
  }
  std::vector<std::string> errors() {
    std::lock_guard lock(mutex);
    return syncErrors;
  }
  std::vector<std::string> problemTexts() {
    std::lock_guard lock(mutex);
    return problems;
  }
  std::vector<synckit::BrainSyncStatus> lastStatus() {
    std::lock_guard lock(mutex);
    return statuses.empty() ? std::vector<synckit::BrainSyncStatus>{} : statuses.back();
  }
};

class SyncSchedulerTest : public ::testing::Test {
 protected:
  SyncSchedulerTest() {
    store->setMeta(synckit::MetaKey::deviceId, "dev-1");
    store->upsertBrain({brainA, "alpha", "alpha", std::nullopt});
    store->upsertBrain({brainB, "beta", "beta", std::nullopt});
    transport.setHandler([this](const HTTPRequest& request) { return service.answer(request); });
    tokenManager.restoreSession();
  }

  SyncScheduler::Callbacks callbacks() {
    SyncScheduler::Callbacks result;
    result.onStatus = [this](std::vector<synckit::BrainSyncStatus> rows, std::optional<Uuid>) {
      std::lock_guard lock(published.mutex);
      published.statuses.push_back(std::move(rows));
    };
    result.onSyncError = [this](std::string text) {
      std::lock_guard lock(published.mutex);
      published.syncErrors.push_back(std::move(text));
    };
    result.onProblem = [this](std::string text) {
      std::lock_guard lock(published.mutex);
      published.problems.push_back(std::move(text));
    };
    return result;
  }

  // Both loops have passed `passes` times and sleep.
  bool bothAsleepAfter(int passes) {
    return eventually([&] {
      return service.fetches(brainA) == passes && service.fetches(brainB) == passes &&
             clock.waiters() == 2;
    });
  }

  synckit::testing::ScopedEnvironment environment;
  synckit::testing::TemporaryDirectory container;
  synckit::testing::TemporaryDirectory runtime;
  std::unique_ptr<synckit::MetadataStore> store = [this] {
    environment.set("HALVARK_CONTAINER", container.path().string())
        .set("XDG_RUNTIME_DIR", runtime.path().string());
    return synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
  }();
  FakeSyncService service;
  FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens{synckit::TokenSet{"a1", "r1"}};
  synckit::TokenManager tokenManager{base, transport, tokens, [] { return std::string("c"); }};
  synckit::SyncAPIClient api{base, transport, tokenManager};
  testing::FakeFileProviderManager fileProvider;
  DomainController domainController{*store, api, tokenManager, fileProvider};
  synckit::testing::FakeClock clock;
  Published published;
  SyncScheduler scheduler{*store, api, tokenManager, domainController, callbacks(), clock};
};

TEST_F(SyncSchedulerTest, LoopsPassSleepAndWakeOnPokesResetsAndRestarts) {
  scheduler.start();
  ASSERT_TRUE(bothAsleepAfter(1));
  EXPECT_EQ(store->cursor(brainA), "c1");
  const auto idle = published.lastStatus();
  ASSERT_EQ(idle.size(), 2u);
  EXPECT_EQ(idle[0].state, synckit::BrainSyncStatus::State::idle());
  EXPECT_TRUE(idle[0].lastSyncAt.has_value());
  EXPECT_TRUE(fileProvider.waitForWorkingSetSignals(2));

  // The 30-second sleep ends a pass early only when the clock says so.
  clock.advance(std::chrono::seconds(29));
  EXPECT_EQ(service.fetches(brainA), 1);
  clock.advance(std::chrono::seconds(1));
  ASSERT_TRUE(bothAsleepAfter(2));

  // A poke while brain A's pass is in flight skips the sleep after it.
  service.gate(brainA);
  scheduler.pokeAll();
  ASSERT_TRUE(eventually([&] { return service.fetches(brainA) == 3; }));
  scheduler.pokeAll();
  service.gate(std::nullopt);
  ASSERT_TRUE(eventually([&] { return service.fetches(brainA) == 4 && clock.waiters() == 2; }));

  // A reset for a looping brain wakes it and fetches without a cursor.
  const int fetchesOfB = service.fetches(brainB);
  scheduler.requestReset(brainB);
  ASSERT_TRUE(eventually(
      [&] { return service.fetches(brainB) == fetchesOfB + 1 && clock.waiters() == 2; }));
  EXPECT_EQ(service.cursors(brainB).back(), "none");
  EXPECT_EQ(service.cursors(brainA).back(), "c3");

  // While stopped a reset is remembered for the next run.
  scheduler.stop();
  EXPECT_FALSE(scheduler.runId().has_value());
  scheduler.requestReset(brainA);
  const int before = service.fetches(brainA);
  scheduler.start();
  const auto firstRun = scheduler.runId();
  ASSERT_TRUE(eventually([&] { return service.fetches(brainA) == before + 1; }));
  EXPECT_EQ(service.cursors(brainA).back(), "none");

  // Starting again replaces the run: one fresh loop per brain.
  ASSERT_TRUE(eventually([&] { return clock.waiters() == 2; }));
  const int a = service.fetches(brainA), b = service.fetches(brainB);
  scheduler.start();
  EXPECT_NE(scheduler.runId(), firstRun);
  ASSERT_TRUE(eventually([&] {
    return service.fetches(brainA) == a + 1 && service.fetches(brainB) == b + 1 &&
           clock.waiters() == 2;
  }));
}

TEST_F(SyncSchedulerTest, ResetWithoutLoopRunsOnePassAndSignalPokesEveryLoop) {
  scheduler.start();
  ASSERT_TRUE(bothAsleepAfter(1));

  // A brain stored after start has no loop: its reset runs one pass now.
  const Uuid late = *Uuid::parse("0C000000-0000-4000-8000-000000000003");
  store->upsertBrain({late, "gamma", "gamma", std::string("old")});
  std::atomic<int> lateFetches = 0;
  transport.setHandler([&](const HTTPRequest& request) {
    if (request.url.find(late.toLowerString() + "/changes?deviceId") != std::string::npos) {
      ++lateFetches;
      return FakeHTTPTransport::json(200, R"({"reset":false,"entries":[],"cursor":"g1"})");
    }
    return service.answer(request);
  });
  scheduler.requestReset(late);
  ASSERT_TRUE(eventually([&] { return store->cursor(late) == std::optional<std::string>("g1"); }));
  EXPECT_EQ(lateFetches, 1);

  // The sync-now signal publishes and pokes both loops.
  const std::size_t statuses = published.statusCount();
  EXPECT_TRUE(synckit::SyncSignal::post(synckit::SyncSignal::name()));
  ASSERT_TRUE(bothAsleepAfter(2));
  EXPECT_GT(published.statusCount(), statuses);
  scheduler.stop();
  EXPECT_FALSE(synckit::SyncSignal::post(synckit::SyncSignal::name()));
}

TEST_F(SyncSchedulerTest, StopDuringAPassWritesNothingAfterwards) {
  service.gate(brainA);
  scheduler.start();
  ASSERT_TRUE(eventually([&] { return service.fetches(brainA) == 1; }));
  scheduler.stop();
  const std::size_t statuses = published.statusCount();
  service.gate(std::nullopt);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(published.statusCount(), statuses);
  EXPECT_EQ(store->cursor(brainA), std::nullopt);
  EXPECT_TRUE(published.errors().empty());
  EXPECT_EQ(clock.waiters(), 0u);
}

TEST_F(SyncSchedulerTest, BrainListThatCannotBeReadStartsNothing) {
  synckit::SQLiteDatabase other(synckit::AppGroup::databaseURL());
  other.execute("ALTER TABLE brains RENAME TO brains_elsewhere");
  scheduler.start();
  EXPECT_TRUE(scheduler.runId().has_value());
  EXPECT_FALSE(synckit::SyncSignal::post(synckit::SyncSignal::name()));
  EXPECT_EQ(service.fetches(brainA) + service.fetches(brainB), 0);
}

TEST_F(SyncSchedulerTest, ServerRefusalsReachTheRightPlaces) {
  // FORBIDDEN: the recent errors and the problem banner, and the loop goes on.
  service.fail(brainA, 403, "FORBIDDEN");
  // NOT_FOUND for a brain that is still granted keeps its loop.
  service.fail(brainB, 404, "NOT_FOUND");
  scheduler.start();
  ASSERT_TRUE(bothAsleepAfter(1));
  EXPECT_EQ(published.errors(), std::vector<std::string>{forbiddenText});
  EXPECT_EQ(published.problemTexts(), std::vector<std::string>{forbiddenText});
  const auto rows = published.lastStatus();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].state, synckit::BrainSyncStatus::State::error(forbiddenText));
  EXPECT_EQ(rows[1].state, synckit::BrainSyncStatus::State::idle());

  // NOT_FOUND for a brain no longer granted removes it and ends its loop.
  service.setBrains(brainJSON(brainA, "alpha"));
  const int signals = fileProvider.workingSetSignals();
  clock.advance(std::chrono::seconds(30));
  ASSERT_TRUE(eventually([&] { return !store->brain(brainB).has_value(); }));
  ASSERT_TRUE(eventually([&] { return service.fetches(brainA) == 2 && clock.waiters() == 1; }));
  EXPECT_GT(fileProvider.workingSetSignals(), signals);
  clock.advance(std::chrono::seconds(30));
  ASSERT_TRUE(eventually([&] { return service.fetches(brainA) == 3 && clock.waiters() == 1; }));
  EXPECT_EQ(service.fetches(brainB), 2);
}

TEST_F(SyncSchedulerTest, SignedOutEndsTheLoopsSilently) {
  tokenManager.signOut();
  scheduler.start();
  ASSERT_TRUE(eventually([&] { return published.statusCount() >= 4; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(clock.waiters(), 0u);
  EXPECT_TRUE(published.errors().empty());
  EXPECT_EQ(service.fetches(brainA) + service.fetches(brainB), 0);
}

}  // namespace
}  // namespace halvark
