// The sync scheduler against the reference service on the real clock: two
// brains synced into a store, changes from the server and from this
// computer carried across, an expired session renewed on the way, the
// status rows it publishes, and a brain whose grant is revoked dropped
// together with its loop.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "app/core/domain_controller.h"
#include "app/core/sync_scheduler.h"
#include "app/core/testing/fake_file_provider_manager.h"
#include "synckit/auth/brain_grants.h"
#include "synckit/engine/local_mutations.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/conflict_spool.h"
#include "synckit/platform/sync_execution_owner.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "tests/e2e/devserver_session.h"

namespace halvark::e2e {
namespace {

using nlohmann::json;
using synckit::BrainSyncStatus;
using synckit::Uuid;

using synckit::testing::eventually;

// Hands every request to the real transport and counts the change-feed
// requests of each brain, so a test can tell whether a brain's loop still
// runs.
class FeedCountingTransport : public synckit::HTTPTransport {
 public:
  explicit FeedCountingTransport(synckit::HTTPTransport& inner) : inner_(inner) {}

  synckit::HTTPResponse send(const synckit::HTTPRequest& request) override {
    static constexpr std::string_view brains = "/api/sync/brains/";
    if (auto start = request.url.find(brains); start != std::string::npos) {
      start += brains.size();
      const auto end = request.url.find('/', start);
      if (end != std::string::npos && request.url.compare(end, 9, "/changes?") == 0) {
        std::lock_guard lock(mutex_);
        ++feeds_[request.url.substr(start, end - start)];
      }
    }
    return inner_.send(request);
  }

  int feedRequests(const Uuid& brainId) {
    std::lock_guard lock(mutex_);
    return feeds_[brainId.toLowerString()];
  }

 private:
  synckit::HTTPTransport& inner_;
  std::mutex mutex_;
  std::map<std::string, int> feeds_;
};

class SchedulerAgainstDevServerTest : public ::testing::Test, protected DevServerSession {
 protected:
  void SetUp() override {
    environment_.set("HALVARK_CONTAINER", container_.path().string())
        .set("XDG_RUNTIME_DIR", runtime_.path().string());
    ASSERT_NO_FATAL_FAILURE(signIn());
    demo_ = *Uuid::parse(demoBrain().id);
    const json created = control("POST", "/brains", {{"name", "Notes"}, {"slug", "notes"}});
    notes_ = *Uuid::parse(created.at("brain").at("id").get<std::string>());
    serverWrite(notes_, "first.md", "the first note");

    store_ = synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
    store_->setMeta(synckit::MetaKey::deviceId, deviceId_);
    store_->setMeta(synckit::MetaKey::deviceName, "e2e-machine");
    ASSERT_TRUE(synckit::BrainGrants::apply(api_.listBrains(), *store_));
    ASSERT_EQ(store_->brains().size(), 2u);

    domainController_ =
        std::make_unique<DomainController>(*store_, schedulerApi_, tokens_, fileProvider_);
    SyncScheduler::Callbacks callbacks;
    callbacks.onStatus = [this](std::vector<BrainSyncStatus> rows, std::optional<Uuid>) {
      std::lock_guard lock(mutex_);
      statuses_.push_back(std::move(rows));
    };
    callbacks.onSyncError = [this](std::string text) {
      std::lock_guard lock(mutex_);
      syncErrors_.push_back(std::move(text));
    };
    scheduler_ = std::make_unique<SyncScheduler>(*store_, schedulerApi_, tokens_,
                                                 *domainController_, std::move(callbacks));
  }

  void serverWrite(const Uuid& brain, const std::string& path, const std::string& content) {
    control("POST", "/brains/" + brain.toLowerString() + "/write",
            {{"path", path}, {"content", content}});
  }
  std::optional<std::string> serverText(const Uuid& brain, const std::string& path) {
    const json tree = control("GET", "/brains/" + brain.toLowerString() + "/tree");
    for (const json& node : tree.at("nodes")) {
      if (node.at("path") == path) return node.value("content", "");
    }
    return std::nullopt;
  }
  bool stored(const Uuid& brain, const std::string& path) {
    return store_->nodeAtPath(brain, path).has_value();
  }

  // The states one brain's rows went through, repeats folded.
  std::vector<BrainSyncStatus::State::Kind> statesOf(const Uuid& brain) {
    std::lock_guard lock(mutex_);
    std::vector<BrainSyncStatus::State::Kind> kinds;
    for (const auto& rows : statuses_) {
      for (const BrainSyncStatus& row : rows) {
        if (row.brainId != brain) continue;
        if (kinds.empty() || kinds.back() != row.state.kind()) kinds.push_back(row.state.kind());
      }
    }
    return kinds;
  }
  std::vector<BrainSyncStatus> lastStatus() {
    std::lock_guard lock(mutex_);
    return statuses_.empty() ? std::vector<BrainSyncStatus>{} : statuses_.back();
  }
  std::vector<std::string> syncErrors() {
    std::lock_guard lock(mutex_);
    return syncErrors_;
  }

  synckit::testing::ScopedEnvironment environment_;
  synckit::testing::TemporaryDirectory container_;
  synckit::testing::TemporaryDirectory runtime_;
  FeedCountingTransport counting_{transport_};
  synckit::SyncAPIClient schedulerApi_{server_.baseURL(), counting_, tokens_};
  std::unique_ptr<synckit::MetadataStore> store_;
  testing::FakeFileProviderManager fileProvider_;
  std::unique_ptr<DomainController> domainController_;
  std::mutex mutex_;
  std::vector<std::vector<BrainSyncStatus>> statuses_;
  std::vector<std::string> syncErrors_;
  std::unique_ptr<SyncScheduler> scheduler_;
  Uuid demo_;
  Uuid notes_;
};

TEST_F(SchedulerAgainstDevServerTest, KeepsBothBrainsInStepBothWaysThroughAnExpiredSession) {
  const synckit::Timestamp started = synckit::Timestamp::now();
  scheduler_->start();
  ASSERT_TRUE(eventually(
      [&] { return stored(demo_, "projects/halvark/todo.txt") && stored(notes_, "first.md"); }));

  // Each brain's rows went from idle (or straight) to syncing and back,
  // ending idle with the time of its pull.
  using Kind = BrainSyncStatus::State::Kind;
  ASSERT_TRUE(eventually([&] {
    const auto rows = lastStatus();
    return rows.size() == 2 && rows[0].state.kind() == Kind::idle &&
           rows[1].state.kind() == Kind::idle;
  }));
  for (const Uuid& brain : {demo_, notes_}) {
    auto kinds = statesOf(brain);
    if (!kinds.empty() && kinds.front() == Kind::idle) kinds.erase(kinds.begin());
    EXPECT_EQ(kinds, (std::vector{Kind::syncing, Kind::idle})) << brain.toString();
  }
  for (const BrainSyncStatus& row : lastStatus()) {
    ASSERT_TRUE(row.lastSyncAt.has_value());
    EXPECT_GE(*row.lastSyncAt, started);
  }

  // A change made elsewhere arrives after a poke, long before the 30 s poll.
  serverWrite(notes_, "second.md", "from another computer");
  scheduler_->pokeAll();
  ASSERT_TRUE(eventually([&] { return stored(notes_, "second.md"); }));

  // An edit journalled as the file provider does it, under the execution
  // lock, reaches the server once the provider's signal arrives.
  const std::int64_t edit =
      synckit::SyncExecutionOwner{synckit::AppGroup::executionLockURL()}.run([&] {
        const auto id = synckit::LocalMutations::journalUpsert(
            *store_, demo_, "written-here.md", std::nullopt, true, synckit::Timestamp::now());
        synckit::ConflictSpool{synckit::AppGroup::spoolDirectory()}.writeEdit(
            synckit::toBytes("typed on this computer"), id);
        return id;
      });
  ASSERT_TRUE(synckit::SyncSignal::post(synckit::SyncSignal::name()));
  ASSERT_TRUE(eventually([&] { return !store_->pendingChange(edit).has_value(); }));
  EXPECT_EQ(serverText(demo_, "written-here.md"), "typed on this computer");

  // With every access token expired the next pass renews the session and
  // still brings the change in.
  const std::string expiredToken = tokenStore_.stored().value().accessToken;
  EXPECT_GE(control("POST", "/tokens/expire").at("expired").get<int>(), 1);
  serverWrite(demo_, "after-expiry.md", "still arriving");
  scheduler_->pokeAll();
  ASSERT_TRUE(eventually([&] { return stored(demo_, "after-expiry.md"); }));
  EXPECT_NE(tokenStore_.stored().value().accessToken, expiredToken);
  EXPECT_EQ(syncErrors(), std::vector<std::string>{});
}

TEST_F(SchedulerAgainstDevServerTest, RevokedBrainIsRemovedAndItsLoopEnds) {
  scheduler_->start();
  ASSERT_TRUE(eventually([&] { return stored(notes_, "first.md") && lastStatus().size() == 2; }));

  control("POST", "/brains/" + notes_.toLowerString() + "/revoke", {{"member", "demo"}});
  scheduler_->pokeAll();
  ASSERT_TRUE(eventually([&] { return !store_->brain(notes_).has_value(); }));
  EXPECT_TRUE(store_->nodes(notes_).empty());
  ASSERT_TRUE(eventually([&] { return lastStatus().size() == 1; }));
  EXPECT_EQ(lastStatus().front().brainId, demo_);

  // Two more rounds of pokes: only the demo brain's loop still asks.
  const int notesFeeds = counting_.feedRequests(notes_);
  for (int round = 0; round < 2; ++round) {
    const int demoFeeds = counting_.feedRequests(demo_);
    scheduler_->pokeAll();
    ASSERT_TRUE(eventually([&] { return counting_.feedRequests(demo_) > demoFeeds; }));
  }
  EXPECT_EQ(counting_.feedRequests(notes_), notesFeeds);
  EXPECT_EQ(syncErrors(), std::vector<std::string>{});
}

}  // namespace
}  // namespace halvark::e2e
