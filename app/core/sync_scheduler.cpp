#include "app/core/sync_scheduler.h"

#include <unistd.h>

#include <climits>
#include <exception>
#include <utility>

#include "synckit/auth/brain_grants.h"
#include "synckit/auth/token_manager_error.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/conflicts/conflict_event_log.h"
#include "synckit/conflicts/conflict_resolver.h"
#include "synckit/conflicts/conflict_spool_pruner.h"
#include "synckit/conflicts/sync_error_log.h"
#include "synckit/engine/pending_edit_uploader.h"
#include "synckit/engine/reconciler.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/sync_execution_owner.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/sync_item_identifier.h"

namespace halvark {

using synckit::Uuid;

namespace {

constexpr const char* forbiddenMessage =
    "This computer's registration was not accepted by the server. Sign out and sign in again.";

std::string hostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

// The thread of `handle`: joined, unless it is the calling thread, which
// cannot wait for itself and is left to run out on its own.
void joinUnlessSelf(std::jthread& handle) {
  if (!handle.joinable()) return;
  if (handle.get_id() == std::this_thread::get_id()) {
    handle.detach();
  } else {
    handle.join();
  }
}

}  // namespace

SyncScheduler::SyncScheduler(synckit::MetadataStore& store, const synckit::SyncAPIClient& api,
                             synckit::TokenManager& tokenManager,
                             DomainController& domainController, Callbacks callbacks,
                             synckit::Clock& clock)
    : store_(store),
      api_(api),
      tokenManager_(tokenManager),
      domainController_(domainController),
      logger_(std::string(synckit::AppIdentity::applicationIdentifier), "sync"),
      callbacks_(std::move(callbacks)),
      clock_(clock) {}

SyncScheduler::~SyncScheduler() { stop(); }

std::optional<Uuid> SyncScheduler::runId() const {
  std::lock_guard lock(mutex_);
  return runId_;
}

bool SyncScheduler::isCurrentLocked(const RunId& runId) const {
  return runId_ == runId && !synckit::isCancelled();
}

bool SyncScheduler::isCurrent(const RunId& runId) const {
  std::lock_guard lock(mutex_);
  return isCurrentLocked(runId);
}

void SyncScheduler::start() {
  stop();
  const RunId run = Uuid::random();
  {
    std::lock_guard lock(mutex_);
    runId_ = run;
  }
  std::vector<synckit::BrainRecord> brains;
  try {
    brains = store_.brains();
  } catch (const std::exception& error) {
    logger_.error("Could not read the brains to sync: %s", error.what());
    return;
  }
  {
    std::lock_guard lock(mutex_);
    if (runId_ != run) return;  // stopped or restarted meanwhile
    for (const synckit::BrainRecord& brain : brains) {
      const Uuid brainId = brain.brainId;
      loops_.insert_or_assign(brainId, std::jthread([this, brainId, run](std::stop_token stop) {
                                synckit::CancellationScope scope(std::move(stop));
                                runLoop(brainId, run);
                              }));
    }
  }
  observeSyncSignal(run);
}

void SyncScheduler::stop() {
  std::vector<std::jthread> threads;
  std::vector<std::stop_source> sleepers;
  std::unique_ptr<synckit::SyncSignalListener> listener;
  {
    std::lock_guard lock(mutex_);
    runId_.reset();
    syncing_.clear();
    errors_.clear();
    lastSyncAt_.clear();
    for (auto& [id, task] : publicationTasks_) threads.push_back(std::move(task));
    publicationTasks_.clear();
    for (auto& task : finishedTasks_) threads.push_back(std::move(task));
    finishedTasks_.clear();
    for (auto& [id, loop] : loops_) threads.push_back(std::move(loop));
    for (auto& [id, sleeper] : sleepers_) sleepers.push_back(sleeper);
    loops_.clear();
    sleepers_.clear();
    pokePending_.clear();
    listener = std::move(listener_);
  }
  for (std::jthread& thread : threads) thread.request_stop();
  for (std::stop_source& sleeper : sleepers) sleeper.request_stop();
  // The listener's handler takes the mutex, so it is stopped outside it; the
  // run id is gone already, so a signal arriving now starts nothing.
  listener.reset();
  for (std::jthread& thread : threads) joinUnlessSelf(thread);
}

void SyncScheduler::pokeAll() {
  std::lock_guard lock(mutex_);
  for (const auto& [brainId, loop] : loops_) {
    pokePending_.insert(brainId);
    if (auto sleeper = sleepers_.find(brainId); sleeper != sleepers_.end()) {
      sleeper->second.request_stop();
    }
  }
}

void SyncScheduler::requestReset(const Uuid& brainId) {
  std::lock_guard lock(mutex_);
  forcedResets_.insert(brainId);
  if (loops_.contains(brainId)) {
    pokePending_.insert(brainId);
    if (auto sleeper = sleepers_.find(brainId); sleeper != sleepers_.end()) {
      sleeper->second.request_stop();
    }
    return;
  }
  if (!runId_) return;  // remembered for the next run
  const RunId run = *runId_;
  startPublicationTask(run, [this, brainId, run] {
    bool goOn = true;
    runCycle(brainId, run, goOn);
  });
}

// Requires mutex_. The task's thread files itself under finishedTasks_ when
// it ends; whoever starts the next task, or stop(), joins it.
void SyncScheduler::startPublicationTask(const RunId& run, std::function<void()> body) {
  const Uuid taskId = Uuid::random();
  // Finished tasks have released the mutex and only return, so joining
  // them here cannot wait for us.
  for (std::jthread& task : finishedTasks_) task.join();
  finishedTasks_.clear();
  publicationTasks_.emplace(
      taskId, std::jthread([this, taskId, run, body = std::move(body)](std::stop_token stop) {
        {
          synckit::CancellationScope scope(std::move(stop));
          if (isCurrent(run)) body();
        }
        std::lock_guard lock(mutex_);
        if (auto self = publicationTasks_.find(taskId); self != publicationTasks_.end()) {
          finishedTasks_.push_back(std::move(self->second));
          publicationTasks_.erase(self);
        }
      }));
}

void SyncScheduler::runLoop(const Uuid& brainId, const RunId& run) {
  while (true) {
    {
      std::lock_guard lock(mutex_);
      if (!isCurrentLocked(run)) return;
      // A poke that arrives during the coming pass is kept and skips the
      // sleep after it.
      pokePending_.erase(brainId);
    }
    bool goOn = true;
    if (!runCycle(brainId, run, goOn) || !goOn) return;
    if (!isCurrent(run)) return;
    waitForPoke(brainId, run);
  }
}

bool SyncScheduler::runCycle(const Uuid& brainId, const RunId& run, bool& goOn) {
  {
    std::lock_guard lock(mutex_);
    if (!isCurrentLocked(run)) return false;
    syncing_.insert(brainId);
  }
  publishStatus(run);
  if (!isCurrent(run)) return false;
  goOn = runPass(brainId, run);
  {
    std::lock_guard lock(mutex_);
    if (!isCurrentLocked(run)) return false;
    syncing_.erase(brainId);
  }
  publishStatus(run);
  if (!isCurrent(run)) return false;
  domainController_.signalWorkingSet();
  if (!isCurrent(run)) return false;
  publishConflictEvents();
  return true;
}

void SyncScheduler::waitForPoke(const Uuid& brainId, const RunId& run) {
  std::stop_source sleeper;
  {
    std::lock_guard lock(mutex_);
    if (pokePending_.contains(brainId) || !isCurrentLocked(run)) return;
    sleepers_.insert_or_assign(brainId, sleeper);
  }
  {
    // Stopping the loop ends its sleep too.
    std::stop_callback onStop(synckit::currentStopToken(), [&sleeper] { sleeper.request_stop(); });
    clock_.waitFor(pollInterval, sleeper.get_token());
  }
  std::lock_guard lock(mutex_);
  if (isCurrentLocked(run)) sleepers_.erase(brainId);
}

bool SyncScheduler::runPass(const Uuid& brainId, const RunId& run) {
  std::vector<synckit::DownloadRequest> downloads;
  bool goOn = true;
  try {
    synckit::SyncExecutionOwner{executionLockURL()}.run([&] {
      downloads = pullAndApply(brainId, run);
      uploadPending(brainId);
    });
    std::lock_guard lock(mutex_);
    if (isCurrentLocked(run)) errors_.erase(brainId);
  } catch (const synckit::TokenManagerError& error) {
    if (error.kind() == synckit::TokenManagerError::Kind::signedOut) {
      logger_.info("Signed out; ending the sync loop for %s", brainId.toString().c_str());
      return false;
    }
    if (!recordPollFailure(brainId, run, error.what())) return false;
  } catch (const synckit::SyncAPIError& error) {
    if (error.isForbidden()) {
      if (!recordFailure(brainId, run, forbiddenMessage) || !isCurrent(run)) return false;
      if (callbacks_.onProblem) callbacks_.onProblem(forbiddenMessage);
    } else if (error.isNotFound()) {
      if (!isCurrent(run)) return false;
      goOn = handleNotFound(brainId);
    } else if (!recordPollFailure(brainId, run, error.what())) {
      return false;
    }
  } catch (const std::exception& error) {
    if (!recordPollFailure(brainId, run, error.what())) return false;
  }
  refreshMaterializedContent(downloads);
  return goOn;
}

// Keeps `text` as the brain's error and reports it; false (and nothing
// recorded) when the run has ended.
bool SyncScheduler::recordFailure(const Uuid& brainId, const RunId& run, const std::string& text) {
  {
    std::lock_guard lock(mutex_);
    if (!isCurrentLocked(run)) return false;
    errors_.insert_or_assign(brainId, text);
  }
  if (callbacks_.onSyncError) callbacks_.onSyncError(text);
  return true;
}

bool SyncScheduler::recordPollFailure(const Uuid& brainId, const RunId& run,
                                      const std::string& text) {
  if (!recordFailure(brainId, run, text)) return false;
  logger_.error("Poll of %s failed: %s", brainId.toString().c_str(), text.c_str());
  return true;
}

std::vector<synckit::DownloadRequest> SyncScheduler::pullAndApply(const Uuid& brainId,
                                                                  const RunId& run) {
  const std::optional<std::string> deviceId = store_.metaValue(synckit::MetaKey::deviceId);
  if (!deviceId) {
    logger_.info("No device id yet; nothing to sync");
    return {};
  }
  bool reset = false;
  {
    std::lock_guard lock(mutex_);
    reset = forcedResets_.erase(brainId) > 0;
  }
  if (reset) store_.setCursor(brainId, std::nullopt);
  const std::optional<std::string> cursor = store_.cursor(brainId);
  const synckit::ChangesResponse response =
      tokenManager_.withAuthRetry([&] { return api_.fetchChanges(brainId, cursor, *deviceId); });
  // A page that arrives after the run ended is not applied.
  synckit::checkCancellation();
  std::unique_ptr<synckit::ConflictResolver> resolver = makeResolver();
  std::vector<synckit::DownloadRequest> downloads;
  if (const auto* page = response.as<synckit::ChangesResponse::Incremental>()) {
    downloads = synckit::Reconciler::reconcile(page->entries, brainId, page->cursor, store_,
                                               resolver->conflictHandler())
                    .downloads;
  } else if (const auto* snapshot = response.as<synckit::ChangesResponse::Reset>()) {
    synckit::ResetReconciliation result =
        resolver->applyReset(snapshot->snapshot, brainId, snapshot->cursor);
    logger_.info("Reset of %s: %ld conflicted copies, %ld requeued, %ld dropped, %ld unresolved",
                 brainId.toString().c_str(), static_cast<long>(result.copies.size()),
                 static_cast<long>(result.requeued.size()),
                 static_cast<long>(result.dropped.size()),
                 static_cast<long>(result.unresolved.size()));
    downloads = std::move(result.plan.downloads);
  }
  std::lock_guard lock(mutex_);
  if (isCurrentLocked(run)) lastSyncAt_.insert_or_assign(brainId, clock_.now());
  return downloads;
}

void SyncScheduler::uploadPending(const Uuid& brainId) {
  const std::optional<std::string> deviceId = store_.metaValue(synckit::MetaKey::deviceId);
  if (!deviceId) return;
  const synckit::ConflictSpool spool = makeSpool();
  std::unique_ptr<synckit::ConflictResolver> resolver = makeResolver();
  synckit::PendingEditUploader::drain(*resolver, store_, spool, *deviceId, api_, tokenManager_,
                                      brainId);
  synckit::ConflictSpoolPruner::prune(spool, store_);
}

bool SyncScheduler::handleNotFound(const Uuid& brainId) {
  try {
    const auto [changed, exists] = synckit::SyncExecutionOwner{executionLockURL()}.run([&] {
      const std::vector<synckit::Brain> brains =
          tokenManager_.withAuthRetry([&] { return api_.listBrains(); });
      const bool changed = synckit::BrainGrants::apply(brains, store_);
      return std::pair{changed, store_.brain(brainId).has_value()};
    });
    if (changed) domainController_.signalWorkingSet();
    return exists;
  } catch (const synckit::TokenManagerError& error) {
    if (error.kind() == synckit::TokenManagerError::Kind::signedOut) return false;
    logger_.error("Could not refresh brains after a 404: %s", error.what());
  } catch (const synckit::CancellationError&) {
    return false;  // the run is ending
  } catch (const std::exception& error) {
    logger_.error("Could not refresh brains after a 404: %s", error.what());
  }
  return true;
}

void SyncScheduler::refreshMaterializedContent(
    const std::vector<synckit::DownloadRequest>& downloads) {
  if (downloads.empty()) return;
  try {
    const auto materialized = domainController_.materializedIdentifiers();
    for (const synckit::DownloadRequest& download : downloads) {
      if (materialized.contains(
              synckit::SyncItemIdentifier::node(download.brainId, download.nodeId))) {
        store_.touchContent(download.brainId, download.nodeId);
      }
    }
  } catch (const synckit::CancellationError&) {
    // The run is ending; the next run refreshes again.
  } catch (const std::exception& error) {
    logger_.error("Could not refresh materialized content: %s", error.what());
  }
}

void SyncScheduler::publishStatus(const RunId& run) {
  std::set<Uuid> syncing;
  std::map<Uuid, std::string> errors;
  std::map<Uuid, synckit::Timestamp> lastSyncAt;
  {
    std::lock_guard lock(mutex_);
    if (!isCurrentLocked(run)) return;
    syncing = syncing_;
    errors = errors_;
    lastSyncAt = lastSyncAt_;
  }
  std::vector<synckit::BrainSyncStatus> rows;
  std::optional<Uuid> inbox;
  try {
    rows = synckit::statuses(store_, syncing, errors, lastSyncAt);
    std::optional<Uuid> preferred;
    if (auto text = store_.metaValue(synckit::MetaKey::inboxBrainId)) {
      preferred = Uuid::parse(*text);
    }
    inbox = synckit::UploadPlanner::resolveInboxBrain(store_.brains(), preferred);
  } catch (const std::exception& error) {
    if (callbacks_.onProblem) {
      callbacks_.onProblem(std::string("Could not read sync status: ") + error.what());
    }
    return;
  }
  if (callbacks_.onStatus) callbacks_.onStatus(std::move(rows), inbox);
}

void SyncScheduler::publishConflictEvents() {
  std::vector<synckit::ConflictEvent> events;
  try {
    events = synckit::ConflictEventLog::drain(store_);
  } catch (const std::exception& error) {
    logger_.error("Could not read conflict events: %s", error.what());
    return;
  }
  if (!events.empty() && callbacks_.onConflictEvents)
    callbacks_.onConflictEvents(std::move(events));

  // The file provider's own findings (items it could not show) join the
  // recent sync errors the same way.
  std::vector<std::string> providerErrors;
  try {
    providerErrors = synckit::SyncErrorLog::drain(store_);
  } catch (const std::exception& error) {
    logger_.error("Could not read the file provider's sync errors: %s", error.what());
    return;
  }
  if (callbacks_.onSyncError) {
    for (std::string& message : providerErrors) callbacks_.onSyncError(std::move(message));
  }
}

void SyncScheduler::observeSyncSignal(const RunId& run) {
  const std::string name = synckit::SyncSignal::name();
  std::unique_ptr<synckit::SyncSignalListener> listener;
  try {
    listener =
        std::make_unique<synckit::SyncSignalListener>(name, [this, run] { handleSyncSignal(run); });
  } catch (const synckit::PosixError& error) {
    logger_.error("Could not register for %s: status %u", name.c_str(),
                  static_cast<unsigned>(error.code()));
    return;
  } catch (const std::exception& error) {
    logger_.error("Could not register for %s: status %u", name.c_str(), 0u);
    return;
  }
  {
    std::lock_guard lock(mutex_);
    if (runId_ == run) {
      listener_ = std::move(listener);
      return;
    }
  }
  // The run ended while the listener was being set up.
  listener.reset();
}

void SyncScheduler::handleSyncSignal(const RunId& run) {
  std::lock_guard lock(mutex_);
  if (runId_ != run) return;
  startPublicationTask(run, [this, run] {
    publishStatus(run);
    if (!isCurrent(run)) return;
    publishConflictEvents();
    if (!isCurrent(run)) return;
    pokeAll();
  });
}

synckit::ConflictSpool SyncScheduler::makeSpool() {
  {
    std::lock_guard lock(mutex_);
    if (spool_) return *spool_;
  }
  synckit::ConflictSpool spool{synckit::AppGroup::spoolDirectory()};
  std::lock_guard lock(mutex_);
  if (!spool_) spool_ = spool;
  return *spool_;
}

std::unique_ptr<synckit::ConflictResolver> SyncScheduler::makeResolver() {
  const synckit::ConflictSpool spool = makeSpool();
  std::string deviceName = store_.metaValue(synckit::MetaKey::deviceName).value_or(hostName());
  return std::make_unique<synckit::ConflictResolver>(
      store_, std::move(deviceName), spool, [this] { return clock_.now(); },
      [spool](const synckit::PendingChange& change,
              const std::optional<synckit::NodeRecord>&) -> std::optional<synckit::Bytes> {
        if (!change.id) return std::nullopt;
        return spool.pendingBytes(*change.id);
      });
}

std::filesystem::path SyncScheduler::executionLockURL() const {
  return synckit::AppGroup::executionLockURL();
}

}  // namespace halvark
