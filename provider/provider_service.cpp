#include "provider/provider_service.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>

#include "provider/download_pool.h"
#include "provider/freedesktop_trash.h"
#include "provider/local_journal.h"
#include "provider/mirror_root.h"
#include "provider/mirror_scanner.h"
#include "provider/mirror_updater.h"
#include "provider/mirror_watcher.h"
#include "provider/settle_queue.h"
#include "synckit/api/curl_transport.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/clock.h"
#include "synckit/conflicts/sync_error_log.h"
#include "synckit/engine/shared_metadata_store.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/platform/conflict_spool.h"
#include "synckit/platform/domain_registry.h"
#include "synckit/platform/file_lock.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/platform/provider_progress.h"
#include "synckit/platform/sync_signal.h"
#include "synckit/platform/token_store_factory.h"
#include "synckit/store/local_index.h"

namespace halvark::provider {
namespace {

using namespace std::chrono_literals;

// How often the store's change log is compared with the index when no
// signal comes: the application may write the store without signalling.
constexpr auto tick = 2s;
// Failed downloads are tried again after this, doubling up to the cap,
// even when nothing else changes.
constexpr auto firstRetryDelay = 10s;
constexpr auto longestRetryDelay = 5min;
// Where the watcher cannot see (no inotify, or the user's watches used
// up), a rescan this often finds local changes instead.
constexpr auto unwatchedRescanInterval = 30s;

// A save is whole once the editor has closed it and its later steps (a
// backup removed, a temporary renamed over the document) have arrived,
// which they do within milliseconds; 200 ms leaves room for a loaded
// machine and keeps a save's way to the server well under a second. A
// file held open is whole once it has stood still for a second: writers
// that pause longer without closing (a stalled download) are rare, and
// uploading one twice costs less than waiting longer for every one.
SettleQueue::Options settleOptions() {
  SettleQueue::Options options;
  options.quiet = 200ms;
  options.settle = 1s;
  options.longestHold = 1s;
  return options;
}

constexpr std::string_view usage = "usage: halvark-provider [--once] [--mirror PATH]";

}  // namespace

// An eventfd the signal listener and a stop request post to, so that the
// loop's poll() returns.
class ProviderService::Wakeup {
 public:
  Wakeup() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd_ < 0) throw synckit::PosixError(errno);
  }
  ~Wakeup() { ::close(fd_); }
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  int fd() const noexcept { return fd_; }
  void post() const noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(fd_, &one, sizeof one);
  }
  void drain() const noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto read = ::read(fd_, &count, sizeof count);
  }

 private:
  int fd_;
};

ProviderService::UsageError::UsageError(const std::string& problem)
    : Error(problem + "\n" + std::string(usage)) {}

ProviderService::Options ProviderService::parseArguments(
    const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--once") {
      options.once = true;
    } else if (argument == "--mirror") {
      if (i + 1 == arguments.size() || arguments[i + 1].empty()) {
        throw UsageError("--mirror needs a folder");
      }
      options.mirror = std::filesystem::absolute(arguments[++i]);
    } else {
      throw UsageError("unknown argument \u201c" + argument + "\u201d");
    }
  }
  return options;
}

ProviderService::ProviderService(Options options)
    : options_(std::move(options)),
      log_(std::string(synckit::AppIdentity::applicationIdentifier), "provider"),
      container_(synckit::AppGroup::containerURL()) {
  const auto lockFile = synckit::ProviderPaths::instanceLockURL(container_);
  synckit::AtomicFile::createDirectories(lockFile.parent_path(), 0700);
  instanceLock_ = synckit::FileLock::tryLock(lockFile);
  if (!instanceLock_) throw AlreadyRunning();

  store_ = synckit::SharedMetadataStore::open();
  index_ = std::make_unique<synckit::LocalIndex>(synckit::ProviderPaths::indexURL(container_));
  mirror_ = std::make_unique<MirrorRoot>(
      options_.mirror.value_or(synckit::ProviderPaths::mirrorFolder()));
  trash_ = std::make_unique<FreedesktopTrash>(*mirror_);

  const std::string baseURL = synckit::AppGroup::baseURL();
  synckit::CurlTransport::Options transportOptions;
  transportOptions.maxIdleHandles = DownloadPool::defaultWorkers;
  // Brotli at the quality servers use by default costs the server more per
  // small file than it saves on the wire, and a brain is mostly small files.
  transportOptions.acceptEncoding = "gzip";
  transport_ = std::make_unique<synckit::CurlTransport>(transportOptions);
  tokens_ = synckit::makeTokenStore();
  tokenManager_ = std::make_unique<synckit::TokenManager>(baseURL, *transport_, *tokens_, *store_);
  api_ = std::make_unique<synckit::SyncAPIClient>(baseURL, *transport_, *tokenManager_);

  MirrorUpdater::Options updaterOptions;
  updaterOptions.progressFile = synckit::ProviderPaths::progressURL(container_);
  updater_ = std::make_unique<MirrorUpdater>(*store_, *index_, *mirror_, *trash_,
                                             DownloadPool::readingWith(*api_, *tokenManager_),
                                             updaterOptions);
  updater_->setSkipHandler(
      [this](const synckit::Uuid&, const std::string& path, const std::string& reason) {
        skipped_.push_back(path.empty() ? "Could not show the folder of a brain: " + reason
                                        : "Could not show \u201c" + path + "\u201d: " + reason);
      });
  journal_ = std::make_unique<LocalJournal>(
      *store_, *index_, *mirror_,
      synckit::ConflictSpool{synckit::AppGroup::spoolDirectory(container_)}, log_);
  // An edit that looks stale may only be this device's upload the mirror
  // has not caught up with: the update runs here, on the loop's thread.
  journal_->setCatchUp([this] { runUpdate(); });
}

ProviderService::~ProviderService() = default;

bool ProviderService::domainRemoved() {
  const auto file = synckit::ProviderPaths::domainsURL(container_);
  std::error_code ignored;
  // Started by hand, with no application registering anything: keep going.
  if (!std::filesystem::exists(file, ignored)) return false;
  try {
    const auto domains = synckit::DomainRegistry::load(file);
    return std::none_of(domains.begin(), domains.end(),
                        [](const auto& domain) { return domain.identifier == domainIdentifier; });
  } catch (const synckit::Error& error) {
    if (!std::exchange(reportedRegistry_, true)) {
      log_.error("Could not read the registered domains: %s", error.what());
    }
    return false;
  }
}

// Hands what the update could not show, and what will not be uploaded, to
// the application, which lists it among the recent sync errors once the
// sync-now signal wakes it.
void ProviderService::reportSkipped() {
  if (skipped_.empty()) return;
  try {
    synckit::SyncErrorLog::append(skipped_, *store_);
    synckit::SyncSignal::post(synckit::SyncSignal::name());
  } catch (const synckit::Error& error) {
    log_.error("Could not report the items left out: %s", error.what());
  }
  skipped_.clear();
}

// One update; a failure is logged and left to the next wake.
bool ProviderService::runUpdate() {
  try {
    const MirrorUpdater::Summary done = updater_->update();
    reportSkipped();
    if (done != MirrorUpdater::Summary{}) {
      log_.info(
          "Mirror updated: %d written, %d adopted, %d moved, %d trashed, %d kept, %d skipped, "
          "%d to retry",
          done.written, done.adopted, done.moved, done.trashed, done.kept, done.skipped,
          done.failed);
    }
    return true;
  } catch (const synckit::CancellationError&) {
    throw;
  } catch (const std::exception& error) {
    reportSkipped();
    log_.error("The mirror could not be updated: %s", error.what());
    return false;
  }
}

void ProviderService::reportUnsupported(const std::string& path, const std::string& why) {
  if (!reportedUnsupported_.insert(path).second) return;
  const std::string text = why + " It is not uploaded.";
  log_.info("%s", text.c_str());
  skipped_.push_back(text);
}

void ProviderService::startWatching() {
  try {
    watcher_ = std::make_unique<MirrorWatcher>(*mirror_);
    noteUnwatched();
  } catch (const synckit::Error& error) {
    log_.error("Could not watch the mirror folder; rescanning it every %lld seconds instead: %s",
               static_cast<long long>(unwatchedRescanInterval.count()), error.what());
    watchIncomplete_ = true;
  }
  settle_ = std::make_unique<SettleQueue>(*mirror_, synckit::Clock::system(), settleOptions());
  settle_->setUnsupportedHandler(
      [this](const std::string& path, const std::string& why) { reportUnsupported(path, why); });
  // Watching first, so that nothing done during the rescan goes unseen.
  rescan(false);
}

void ProviderService::noteUnwatched() {
  for (const MirrorWatcher::Unwatched& folder : watcher_->takeUnwatched()) {
    watchIncomplete_ = true;
    if (folder.code == ENOSPC) {
      if (!std::exchange(reportedWatchLimit_, true)) {
        log_.error(
            "Could not watch \u201c%s\u201d and maybe more folders: the system's limit of "
            "inotify watches (fs.inotify.max_user_watches) is reached; changes there are found "
            "by a rescan every %lld seconds",
            folder.path.c_str(), static_cast<long long>(unwatchedRescanInterval.count()));
      }
    } else if (reportedUnwatched_.insert(folder.path).second) {
      log_.error("Could not watch \u201c%s\u201d: %s", folder.path.c_str(),
                 std::strerror(folder.code));
    }
  }
}

void ProviderService::readEvents() {
  MirrorWatcher::Batch batch = watcher_->read();
  if (batch.overflowed) {
    // The watches are new; what waited to settle is found again.
    log_.info("Events in the mirror folder were lost; rescanning it");
    watchIncomplete_ = false;
    noteUnwatched();
    settle_->clear();
    rescanAt_ = std::chrono::steady_clock::now();
    return;
  }
  noteUnwatched();
  // A folder the provider made (the index knows it) is watched only once
  // its event is read, after the update that made it. What the listing of
  // it found is the provider's own, and what the user did in it meanwhile
  // (a move, a removal) only a comparison with the index can tell: the
  // rescan, which waits a moment for the rest of the update's events.
  std::optional<std::map<synckit::Uuid, std::string>> brainFolders;
  std::vector<std::string> made;
  std::vector<MirrorWatcher::Event> events;
  for (MirrorWatcher::Event& event : batch.events) {
    using Kind = MirrorWatcher::Event::Kind;
    if (event.kind == Kind::found &&
        std::any_of(made.begin(), made.end(), [&](const std::string& folder) {
          return event.path.starts_with(folder) && event.path[folder.size()] == '/';
        })) {
      continue;
    }
    if (event.kind == Kind::created && event.isDirectory) {
      if (!brainFolders) brainFolders = index_->brainFolders();
      const bool isBrainFolder =
          std::any_of(brainFolders->begin(), brainFolders->end(),
                      [&](const auto& brain) { return brain.second == event.path; });
      if (isBrainFolder || index_->entryAtPath(event.path)) {
        made.push_back(event.path);
        rescanAt_ = std::min(rescanAt_, std::chrono::steady_clock::now() + 100ms);
        continue;
      }
    }
    events.push_back(std::move(event));
  }
  settle_->add(events);
}

// What changed while nothing watched, found by comparing the disk with the
// index. At start it is journalled at once, before the first update acts
// on the same items; later, while the user may be busy, it settles with
// the watcher's events (read first, so that the scan is the newer news).
void ProviderService::rescan(bool settleFirst) {
  if (settleFirst && watcher_) readEvents();
  rescanAt_ = SteadyTime::max();
  try {
    const LocalJournal::Outcome recovered = journal_->recoverBrainFolders();
    if (!recovered.refusals.empty()) synckit::SyncSignal::post(synckit::SyncSignal::name());
    const std::vector<LocalChange> found = MirrorScanner::scan(
        *mirror_, *index_,
        [this](const std::string& path, const std::string& why) { reportUnsupported(path, why); });
    reportSkipped();
    if (settleFirst) {
      settle_->add(found);
    } else {
      journal(found);
    }
  } catch (const synckit::CancellationError&) {
    throw;
  } catch (const std::exception& error) {
    reportSkipped();
    log_.error("The mirror folder could not be rescanned: %s", error.what());
    rescanAt_ = std::chrono::steady_clock::now() + firstRetryDelay;
  }
  if (watchIncomplete_ && rescanAt_ == SteadyTime::max()) {
    rescanAt_ = std::chrono::steady_clock::now() + unwatchedRescanInterval;
  }
}

void ProviderService::journal(const std::vector<LocalChange>& changes) {
  if (changes.empty()) return;
  try {
    const LocalJournal::Outcome outcome = journal_->apply(changes);
    if (outcome.journalled > 0) log_.info("Queued %d local changes", outcome.journalled);
    // Refusals wait in the sync error log for the application, which reads
    // it when woken.
    if (outcome.journalled > 0 || !outcome.refusals.empty()) {
      synckit::SyncSignal::post(synckit::SyncSignal::name());
    }
  } catch (const synckit::CancellationError&) {
    throw;
  } catch (const std::exception& error) {
    // What was journalled stays; a rescan finds the rest.
    log_.error("Local changes could not be queued: %s", error.what());
    rescanAt_ = std::chrono::steady_clock::now() + firstRetryDelay;
  }
}

void ProviderService::follow(const std::stop_token& stop, const Wakeup& wakeup,
                             std::atomic<bool>& signalled) {
  using Steady = std::chrono::steady_clock;
  startWatching();
  bool updateDue = true;
  auto retryDelay = firstRetryDelay;
  // Never, until an update leaves something to retry.
  SteadyTime retryAt = SteadyTime::max();
  SteadyTime nextCheck = Steady::now() + tick;
  for (;;) {
    if (updateDue) {
      if (domainRemoved()) {
        log_.info("The file-provider domain was removed; stopping");
        return;
      }
      const bool updated = runUpdate();
      updateDue = false;
      if (!updated || !index_->retries().empty()) {
        retryAt = Steady::now() + retryDelay;
        retryDelay = std::min<std::chrono::seconds>(retryDelay * 2, longestRetryDelay);
      } else {
        retryAt = SteadyTime::max();
        retryDelay = firstRetryDelay;
      }
      nextCheck = Steady::now() + tick;
    }

    const SteadyTime wakeAt = std::min({nextCheck, retryAt, rescanAt_});
    auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(wakeAt - Steady::now());
    if (const auto settled = settle_->nextDeadline()) {
      timeout = std::min(timeout, std::chrono::milliseconds(
                                      settled->millisecondsSinceEpoch() -
                                      synckit::Clock::system().now().millisecondsSinceEpoch()));
    }
    pollfd waits[2] = {{wakeup.fd(), POLLIN, 0}, {watcher_ ? watcher_->fd() : -1, POLLIN, 0}};
    if (::poll(waits, 2, static_cast<int>(std::max<std::int64_t>(timeout.count(), 0))) < 0 &&
        errno != EINTR) {
      throw synckit::PosixError(errno);
    }
    if (stop.stop_requested()) throw synckit::CancellationError();
    if (waits[0].revents != 0) {
      wakeup.drain();
      if (signalled.exchange(false)) updateDue = true;
    }
    if (waits[1].revents != 0) readEvents();
    const std::vector<LocalChange> settled = settle_->takeSettled();
    reportSkipped();
    journal(settled);

    const SteadyTime now = Steady::now();
    if (now >= rescanAt_) rescan(true);
    if (now >= retryAt) updateDue = true;
    if (now >= nextCheck) {
      nextCheck = now + tick;
      try {
        updateDue = updateDue || domainRemoved() || store_->currentAnchor() != index_->anchor();
      } catch (const synckit::Error&) {
        updateDue = true;  // the update reports what is wrong
      }
    }
  }
}

int ProviderService::run() {
  const std::stop_token stop = synckit::currentStopToken();
  const Wakeup wakeup;
  std::atomic<bool> signalled = false;
  std::optional<synckit::SyncSignalListener> listener;
  try {
    listener.emplace(synckit::ProviderPaths::workingSetSignalName(), [&] {
      signalled = true;
      wakeup.post();
    });
  } catch (const synckit::Error& error) {
    // The change log is still followed, only less promptly.
    log_.error("Could not listen for the working-set signal: %s", error.what());
  }
  const std::stop_callback onStop(stop, [&] { wakeup.post(); });
  log_.info("Keeping \u201c%s\u201d in step with the store", mirror_->path().c_str());

  int status = 0;
  try {
    if (options_.once) {
      if (domainRemoved()) {
        log_.info("The file-provider domain was removed; stopping");
      } else {
        status = runUpdate() ? 0 : 1;
      }
    } else {
      follow(stop, wakeup, signalled);
    }
  } catch (const synckit::CancellationError&) {
    log_.info("Stopping");
  }
  if (listener) listener->stop();
  try {
    synckit::ProviderProgressFile::write(
        synckit::ProviderPaths::progressURL(container_),
        synckit::ProviderProgress{0, 0, true, synckit::Timestamp::now()});
  } catch (const synckit::Error& error) {
    log_.error("Could not publish the download progress: %s", error.what());
  }
  return status;
}

}  // namespace halvark::provider
