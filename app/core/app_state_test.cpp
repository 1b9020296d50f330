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

// A RunLoop that counts the tasks posted to it and the tasks it finished, so
// that a test can wait for exactly the work another thread handed over.
class CountingQueue final : public MainQueue {
 public:
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

  RunLoop loop;
  std::atomic<int> posted = 0;
  int ran = 0;
};

BrainSyncStatus row(const Uuid& id, BrainSyncStatus::State state) {
  return BrainSyncStatus{id, "Brain", std::move(state), std::nullopt, 0};
}

struct AppStateTest : ::testing::Test {
  synckit::testing::FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens;
  synckit::TokenManager tokenManager{"https://sync.example.test", transport, tokens,
                                     [] { return std::string("client"); }};
  CountingQueue queue;
  std::thread::id mainThread = std::this_thread::get_id();
  int labelCalls = 0;
  AppState state{tokenManager,
                 [this] {
                   EXPECT_EQ(std::this_thread::get_id(), mainThread);
                   ++labelCalls;
                   return std::string("Computer");
                 },
                 queue};
  std::multiset<Field> told;
  AppState::ObserverId observer = state.observe([this](Field field) { told.insert(field); });
};

TEST_F(AppStateTest, ListsKeepTheNewestAndObserversHearEachBatchOnce) {
  for (int i = 1; i <= 7; ++i) state.addRecentSyncError("e" + std::to_string(i));
  EXPECT_EQ(state.recentSyncErrors(), (std::vector<std::string>{"e3", "e4", "e5", "e6", "e7"}));
  EXPECT_EQ(told.count(Field::recentSyncErrors), 7u);

  told.clear();
  std::vector<synckit::ConflictEvent> events;
  for (int i = 1; i <= 21; ++i) {
    events.push_back({synckit::ConflictEvent::Kind::readOnlyBounce, brainA, "p", std::nullopt,
                      "m" + std::to_string(i), synckit::Timestamp::fromMilliseconds(i)});
  }
  state.addConflictNotices(events);
  const auto& notices = state.conflictNotices();
  ASSERT_EQ(notices.size(), 20u);
  EXPECT_EQ(notices.front().message, "m2");
  EXPECT_EQ(notices.back().message, "m21");
  EXPECT_EQ(notices.back().at, synckit::Timestamp::fromMilliseconds(21));
  EXPECT_EQ(notices.back().kind, synckit::ConflictEvent::Kind::readOnlyBounce);
  EXPECT_NE(notices.front().id, notices.back().id);
  EXPECT_EQ(state.recentSyncErrors(),
            (std::vector<std::string>{"m17", "m18", "m19", "m20", "m21"}));
  EXPECT_EQ(told, (std::multiset<Field>{Field::conflictNotices, Field::recentSyncErrors}));

  told.clear();
  state.clearRecentSyncErrors();
  state.clearRecentSyncErrors();
  state.addConflictNotices({});
  EXPECT_TRUE(state.recentSyncErrors().empty());
  EXPECT_EQ(told, (std::multiset<Field>{Field::recentSyncErrors}));
}

TEST_F(AppStateTest, StatusIsDroppedUnlessSignedInAndOnlyRealChangesAreTold) {
  const std::vector<BrainSyncStatus> rows{row(brainA, BrainSyncStatus::State::idle()),
                                          row(brainB, BrainSyncStatus::State::syncing())};
  state.applyStatus(rows, brainB);
  state.setSession(Session::signingIn());
  state.applyStatus(rows, brainB);
  EXPECT_TRUE(state.brainStatuses().empty());
  EXPECT_FALSE(state.inboxBrainId());

  state.setSession(Session::signedIn("Computer"));
  state.setSession(Session::signedIn("Computer"));
  state.applyStatus(rows, brainB);
  state.applyStatus(rows, brainB);
  state.setErrorMessage("Offline");
  state.setErrorMessage("Offline");
  EXPECT_EQ(state.brainStatuses(), rows);
  EXPECT_EQ(state.inboxBrainId(), brainB);
  EXPECT_EQ(told, (std::multiset<Field>{Field::session, Field::session, Field::brainStatuses,
                                        Field::inboxBrainId, Field::errorMessage}));
  EXPECT_EQ(state.aggregateState(), (AggregateState{AggregateState::Kind::syncing, ""}));

  state.applyStatus({row(brainA, BrainSyncStatus::State::syncing()),
                     row(brainB, BrainSyncStatus::State::error("Forbidden")),
                     row(brainA, BrainSyncStatus::State::error("Later"))},
                    std::nullopt);
  EXPECT_EQ(state.aggregateState(), (AggregateState{AggregateState::Kind::error, "Forbidden"}));
  EXPECT_FALSE(state.inboxBrainId());

  // An observer that leaves while being told, taking a later one with it:
  // neither is called again, not even in the same round.
  told.clear();
  int selfCalls = 0;
  int lateCalls = 0;
  AppState::ObserverId self = 0;
  AppState::ObserverId late = 0;
  self = state.observe([&](Field) {
    ++selfCalls;
    state.unobserve(self);
    state.unobserve(late);
  });
  late = state.observe([&](Field) { ++lateCalls; });
  state.setInboxBrainId(brainA);
  state.setBrainStatuses({});
  EXPECT_EQ(state.aggregateState(), AggregateState{});
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(lateCalls, 0);
  EXPECT_EQ(told, (std::multiset<Field>{Field::inboxBrainId, Field::brainStatuses}));
}

TEST_F(AppStateTest, StartRestoresTheStoredSessionFollowsItAndLeavesASignInAlone) {
  tokens.save({"a1", "r1"});
  int restored = 0;
  state.start([&] { ++restored; });
  state.start([&] { ++restored; });
  ASSERT_TRUE(queue.runUntilRan(1));
  EXPECT_EQ(restored, 1);
  EXPECT_EQ(state.session(), Session::signedIn("Computer"));
  EXPECT_EQ(labelCalls, 1);

  // The restore's own change comes through the updates as well.
  tokenManager.signOut();
  ASSERT_TRUE(queue.runUntilRan(3));
  EXPECT_EQ(state.session(), Session::signedOut());

  state.setSession(Session::signingIn());
  tokenManager.signIn({"a2", "Bearer", 3600, "r2", "readwrite"});
  ASSERT_TRUE(queue.runUntilRan(4));
  EXPECT_EQ(state.session(), Session::signingIn());
  EXPECT_EQ(queue.posted, 4);
}

TEST(AppStateStartTest, AFailedRestoreShowsItsDescription) {
  const std::vector<std::pair<std::exception_ptr, std::string>> cases{
      {synckit::testing::InMemoryTokenStore::defaultFailure(),
       "Keychain error -25308: The keychain is not available."},
      {std::make_exception_ptr(synckit::SyncAPIError(503, "UNAVAILABLE", "Try again later")),
       "Try again later"},
      {std::make_exception_ptr(synckit::SyncAPIError(503, "UNAVAILABLE", "")),
       "Sync API error 503 UNAVAILABLE: "}};
  for (const auto& [failure, text] : cases) {
    synckit::testing::FakeHTTPTransport transport;
    synckit::testing::InMemoryTokenStore tokens{synckit::TokenSet{"a1", "r1"}};
    tokens.fail(synckit::testing::InMemoryTokenStore::Operation::load, failure);
    synckit::TokenManager tokenManager{"https://sync.example.test", transport, tokens,
                                       [] { return std::string("client"); }};
    RunLoop loop;
    AppState state{tokenManager, [] { return std::string("Computer"); }, loop};
    bool restored = false;
    state.start([&] { restored = true; });
    ASSERT_TRUE(loop.runUntil([&] { return restored; }, 10s));
    EXPECT_EQ(state.errorMessage(), text);
    EXPECT_EQ(state.session(), Session::signedOut());
  }
}

TEST(AppStateStartTest, TasksPostedForADestroyedStateDoNothing) {
  synckit::testing::FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens{synckit::TokenSet{"a1", "r1"}};
  synckit::TokenManager tokenManager{"https://sync.example.test", transport, tokens,
                                     [] { return std::string("client"); }};
  CountingQueue queue;
  bool restored = false;
  {
    AppState state{tokenManager, [] { return std::string("Computer"); }, queue};
    state.start([&] { restored = true; });
    while (queue.posted < 2) std::this_thread::sleep_for(1ms);
    tokenManager.signOut();
    while (queue.posted < 3) std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(queue.loop.runFor(50ms), 3u);
  EXPECT_FALSE(restored);
}

TEST(RunLoopTest, RunServesOtherThreadsUntilQuitAndThenDropsTasks) {
  RunLoop loop;
  std::vector<int> order;
  std::jthread poster([&] {
    for (int i = 0; i < 100; ++i) loop.post([&order, i] { order.push_back(i); });
    loop.post([&] { loop.quit(); });
    loop.post([&] { order.push_back(-1); });
  });
  loop.run();
  poster.join();
  std::vector<int> expected(100);
  for (int i = 0; i < 100; ++i) expected[i] = i;
  EXPECT_EQ(order, expected);
  loop.post([&] { order.push_back(-2); });
  loop.run();
  EXPECT_EQ(loop.runFor(10ms), 0u);
  EXPECT_EQ(order.size(), 100u);
}

}  // namespace
}  // namespace halvark
