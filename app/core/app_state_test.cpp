#include "app/core/app_state.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "app/core/run_loop.h"
#include "synckit/api/sync_api_error.h"
#include "synckit/auth/token_manager.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"

namespace halvark {
namespace {

using namespace std::chrono_literals;
using Field = AppState::Field;
using synckit::BrainSyncStatus;
using synckit::Uuid;

const Uuid brainA = *Uuid::parse("0A000000-0000-4000-8000-000000000001");
const Uuid brainB = *Uuid::parse("0B000000-0000-4000-8000-000000000002");

// Counts the tasks posted and the tasks run, so that a test waits for exactly
// the work another thread handed over.
struct CountingQueue final : MainQueue {
  void post(std::function<void()> task) override {
    ++posted;
    loop.post([this, task = std::move(task)] {
      task();
      ++ran;
    });
  }
  bool runUntilRan(int count) {
    return loop.runUntil([&] { return ran >= count; }, 10s);
  }
  void waitForPosts(int count) const {
    while (posted < count) std::this_thread::sleep_for(1ms);
  }

  RunLoop loop;
  std::atomic<int> posted = 0;
  int ran = 0;
};

struct AppStateTest : ::testing::Test {
  std::unique_ptr<AppState> makeState() {
    return std::make_unique<AppState>(
        tokenManager,
        [this] {
          EXPECT_EQ(std::this_thread::get_id(), mainThread);
          return std::string("Computer");
        },
        queue);
  }

  synckit::testing::FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens;
  synckit::TokenManager tokenManager{"https://sync.example.test", transport, tokens,
                                     [] { return std::string("client"); }};
  CountingQueue queue;
  std::thread::id mainThread = std::this_thread::get_id();
  std::unique_ptr<AppState> state = makeState();
  std::multiset<Field> told;
  AppState::ObserverId observer = state->observe([this](Field field) { told.insert(field); });
};

TEST_F(AppStateTest, ListsKeepTheNewestAndObserversHearEachBatchOnce) {
  for (int i = 1; i <= 7; ++i) state->addRecentSyncError("e" + std::to_string(i));
  EXPECT_EQ(state->recentSyncErrors(), (std::vector<std::string>{"e3", "e4", "e5", "e6", "e7"}));

  told.clear();
  std::vector<synckit::ConflictEvent> events;
  for (int i = 1; i <= 21; ++i) {
    events.push_back({synckit::ConflictEvent::Kind::readOnlyBounce, brainA, "p", std::nullopt,
                      "m" + std::to_string(i), synckit::Timestamp::fromMilliseconds(i)});
  }
  state->addConflictNotices(events);
  const auto& notices = state->conflictNotices();
  ASSERT_EQ(notices.size(), 20u);
  EXPECT_EQ(notices.front().message, "m2");
  EXPECT_EQ(notices.back(),
            (ConflictNotice{notices.back().id, "m21", synckit::Timestamp::fromMilliseconds(21),
                            synckit::ConflictEvent::Kind::readOnlyBounce}));
  EXPECT_NE(notices.front().id, notices.back().id);
  EXPECT_EQ(state->recentSyncErrors(),
            (std::vector<std::string>{"m17", "m18", "m19", "m20", "m21"}));

  state->clearRecentSyncErrors();
  state->clearRecentSyncErrors();
  EXPECT_EQ(told, (std::multiset<Field>{Field::conflictNotices, Field::recentSyncErrors,
                                        Field::recentSyncErrors}));
}

TEST_F(AppStateTest, StatusIsDroppedUnlessSignedInAndOnlyRealChangesAreTold) {
  std::vector<BrainSyncStatus> rows{{brainA, "A", BrainSyncStatus::State::idle(), {}, 0},
                                    {brainB, "B", BrainSyncStatus::State::syncing(), {}, 0}};
  state->setSession(Session::signingIn());
  state->applyStatus(rows, brainB);
  EXPECT_TRUE(state->brainStatuses().empty());

  state->setSession(Session::signedIn("Computer"));
  state->setSession(Session::signedIn("Computer"));
  state->applyStatus(rows, brainB);
  state->applyStatus(rows, brainB);
  EXPECT_EQ(state->inboxBrainId(), brainB);
  EXPECT_EQ(told, (std::multiset<Field>{Field::session, Field::session, Field::brainStatuses,
                                        Field::inboxBrainId}));
  EXPECT_EQ(state->aggregateState(), (AggregateState{AggregateState::Kind::syncing, ""}));
  rows.push_back({brainA, "C", BrainSyncStatus::State::error("Forbidden"), {}, 0});
  rows.push_back({brainB, "D", BrainSyncStatus::State::error("Later"), {}, 0});
  state->setBrainStatuses(rows);
  EXPECT_EQ(state->aggregateState(), (AggregateState{AggregateState::Kind::error, "Forbidden"}));

  // An observer that leaves while being told, taking a later one with it:
  // neither is called again, not even in the same round.
  told.clear();
  int selfCalls = 0;
  int lateCalls = 0;
  AppState::ObserverId self = 0;
  AppState::ObserverId late = 0;
  self = state->observe([&](Field) {
    ++selfCalls;
    state->unobserve(self);
    state->unobserve(late);
  });
  late = state->observe([&](Field) { ++lateCalls; });
  state->setInboxBrainId(brainA);
  state->setErrorMessage("Offline");
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(lateCalls, 0);
  EXPECT_EQ(told, (std::multiset<Field>{Field::inboxBrainId, Field::errorMessage}));
}

TEST_F(AppStateTest, StartRestoresTheStoredSessionFollowsItAndLeavesASignInAlone) {
  tokens.save({"a1", "r1"});
  int restored = 0;
  state->start([&] { ++restored; });
  state->start([&] { ++restored; });
  ASSERT_TRUE(queue.runUntilRan(1));
  EXPECT_EQ(restored, 1);
  EXPECT_EQ(state->session(), Session::signedIn("Computer"));

  // The restore's own change comes through the updates as well.
  tokenManager.signOut();
  ASSERT_TRUE(queue.runUntilRan(3));
  EXPECT_EQ(state->session(), Session::signedOut());

  state->setSession(Session::signingIn());
  tokenManager.signIn({"a2", "Bearer", 3600, "r2", "readwrite"});
  ASSERT_TRUE(queue.runUntilRan(4));
  EXPECT_EQ(state->session(), Session::signingIn());
}

TEST_F(AppStateTest, AFailedRestoreShowsTheServersMessageOrTheDescription) {
  for (const auto& [message, shown] :
       {std::pair<std::string, std::string>{"Try later", "Try later"},
        {"", "Sync API error 503 UNAVAILABLE: "}}) {
    tokens.fail(synckit::testing::InMemoryTokenStore::Operation::load,
                std::make_exception_ptr(synckit::SyncAPIError(503, "UNAVAILABLE", message)));
    auto failing = makeState();
    bool restored = false;
    failing->start([&] { restored = true; });
    ASSERT_TRUE(queue.loop.runUntil([&] { return restored; }, 10s));
    EXPECT_EQ(failing->errorMessage(), shown);
  }
}

TEST_F(AppStateTest, TasksPostedForADestroyedStateDoNothing) {
  tokens.save({"a1", "r1"});
  bool restored = false;
  state->start([&] { restored = true; });
  queue.waitForPosts(2);
  tokenManager.signOut();
  queue.waitForPosts(3);
  state.reset();
  EXPECT_EQ(queue.loop.runFor(50ms), 3u);
  EXPECT_FALSE(restored);
}

TEST(RunLoopTest, RunServesOtherThreadsInOrderUntilQuitThenDropsTasks) {
  RunLoop loop;
  std::vector<int> order;
  std::jthread poster([&] {
    for (int i = 0; i < 100; ++i) loop.post([&order, i] { order.push_back(i); });
    loop.post([&] { loop.quit(); });
    loop.post([&] { order.push_back(-1); });
  });
  loop.run();
  poster.join();
  loop.post([&] { order.push_back(-2); });
  loop.run();
  EXPECT_EQ(loop.runFor(10ms), 0u);
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
}

}  // namespace
}  // namespace halvark
