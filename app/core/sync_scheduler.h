#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app/core/domain_controller.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/clock.h"
#include "synckit/base/logger.h"
#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/conflicts/conflict_event.h"
#include "synckit/engine/brain_sync_status.h"
#include "synckit/engine/download_request.h"
#include "synckit/platform/conflict_spool.h"
#include "synckit/store/metadata_store.h"

namespace synckit {
class ConflictResolver;
class SyncSignalListener;
}  // namespace synckit

namespace halvark {

// Keeps every stored brain in step with the server while the user is signed
// in. A run (start() to stop()) has one loop thread per brain: each pass
// pulls the brain's change feed and applies it, uploads the local edits that
// wait in the store, publishes the status rows, signals the file provider's
// working set and hands new conflict events on; then the loop sleeps
// 30 seconds or until poked. Passes of every process on the container are
// serialised by the execution lock; the sync-now signal (posted by the file
// provider) publishes and pokes every loop.
//
// Every public member may be called from any thread, and from inside a
// callback. State is guarded by one mutex that is never held while calling
// out: callbacks run on the loop and signal threads, so the application
// must hop to its own thread to touch its UI. Work of an earlier run never
// writes state of a later one: every step rechecks the run id.
class SyncScheduler {
 public:
  struct Callbacks {
    // New conflict events for the interface.
    std::function<void(std::vector<synckit::ConflictEvent>)> onConflictEvents;
    // A problem the user must act on.
    std::function<void(std::string)> onProblem;
    // The status rows of every brain and the inbox brain's id.
    std::function<void(std::vector<synckit::BrainSyncStatus>, std::optional<synckit::Uuid>)>
        onStatus;
    // One sync failure, for the recent-errors list.
    std::function<void(std::string)> onSyncError;
  };

  // How long a loop sleeps between passes unless poked.
  static constexpr std::chrono::seconds pollInterval{30};

  // Everything borrowed must outlive the scheduler. `clock` supplies the
  // time of day and the loops' sleeps.
  SyncScheduler(synckit::MetadataStore& store, const synckit::SyncAPIClient& api,
                synckit::TokenManager& tokenManager, DomainController& domainController,
                Callbacks callbacks, synckit::Clock& clock = synckit::Clock::system());
  // Stops the run.
  ~SyncScheduler();
  SyncScheduler(const SyncScheduler&) = delete;
  SyncScheduler& operator=(const SyncScheduler&) = delete;

  // Begins a run (ending the current one first): one loop per stored brain
  // and the sync-now listener.
  void start();
  // Ends the run. Returns when no thread of the run can touch the store or
  // call a callback any more (except the calling thread itself, when stop()
  // is called from a callback).
  void stop();
  // Makes every loop start a pass now, or right after the pass it is in.
  void pokeAll();
  // Makes the brain's next pass fetch the change feed from no cursor. With a
  // loop for the brain, that loop is woken; without one during a run, one
  // pass runs at once on a thread of its own; while stopped, the reset waits
  // for the next run. Does not wait for the pass.
  void requestReset(const synckit::Uuid& brainId);

  // The current run's identity; absent while stopped.
  std::optional<synckit::Uuid> runId() const;

 private:
  using RunId = synckit::Uuid;

  bool isCurrent(const RunId& runId) const;
  bool isCurrentLocked(const RunId& runId) const;
  void runLoop(const synckit::Uuid& brainId, const RunId& runId);
  bool runCycle(const synckit::Uuid& brainId, const RunId& runId, bool& goOn);
  void waitForPoke(const synckit::Uuid& brainId, const RunId& runId);
  bool runPass(const synckit::Uuid& brainId, const RunId& runId);
  bool recordFailure(const synckit::Uuid& brainId, const RunId& runId, const std::string& text);
  bool recordPollFailure(const synckit::Uuid& brainId, const RunId& runId, const std::string& text);
  std::vector<synckit::DownloadRequest> pullAndApply(const synckit::Uuid& brainId,
                                                     const RunId& runId);
  void uploadPending(const synckit::Uuid& brainId);
  bool handleNotFound(const synckit::Uuid& brainId);
  void refreshMaterializedContent(const std::vector<synckit::DownloadRequest>& downloads);
  void publishStatus(const RunId& runId);
  // Conflict events and the file provider's sync errors, to the callbacks.
  void publishConflictEvents();
  void observeSyncSignal(const RunId& runId);
  void handleSyncSignal(const RunId& runId);
  // Requires mutex_.
  void startPublicationTask(const RunId& runId, std::function<void()> body);
  synckit::ConflictSpool makeSpool();
  std::unique_ptr<synckit::ConflictResolver> makeResolver();
  std::filesystem::path executionLockURL() const;

  synckit::MetadataStore& store_;
  const synckit::SyncAPIClient& api_;
  synckit::TokenManager& tokenManager_;
  DomainController& domainController_;
  synckit::Logger logger_;
  Callbacks callbacks_;
  synckit::Clock& clock_;

  // Guards everything below. Never held while calling out.
  mutable std::mutex mutex_;
  std::map<synckit::Uuid, std::jthread> loops_;
  std::optional<RunId> runId_;
  std::set<synckit::Uuid> pokePending_;
  // The stop source of each sleeping loop's wait; stopping it ends the wait.
  std::map<synckit::Uuid, std::stop_source> sleepers_;
  std::unique_ptr<synckit::SyncSignalListener> listener_;
  std::map<synckit::Uuid, std::jthread> publicationTasks_;
  // Publication threads that have ended, waiting to be joined.
  std::vector<std::jthread> finishedTasks_;
  std::optional<synckit::ConflictSpool> spool_;
  std::set<synckit::Uuid> forcedResets_;
  std::set<synckit::Uuid> syncing_;
  std::map<synckit::Uuid, std::string> errors_;
  std::map<synckit::Uuid, synckit::Timestamp> lastSyncAt_;
};

}  // namespace halvark
