#include "provider/provider_service.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stop_token>

#include "provider/download_pool.h"
#include "provider/freedesktop_trash.h"
#include "provider/mirror_root.h"
#include "provider/mirror_updater.h"
#include "synckit/api/curl_transport.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/cancellation.h"
#include "synckit/conflicts/sync_error_log.h"
#include "synckit/engine/shared_metadata_store.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/atomic_file.h"
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

constexpr std::string_view usage = "usage: halvark-provider [--once] [--mirror PATH]";

}  // namespace

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

// Hands what the update could not show to the application, which lists it
// among the recent sync errors once the sync-now signal wakes it.
void ProviderService::reportSkipped() {
  if (skipped_.empty()) return;
  try {
    synckit::SyncErrorLog::append(skipped_, *store_);
    synckit::SyncSignal::post(synckit::SyncSignal::name());
  } catch (const synckit::Error& error) {
    log_.error("Could not report the items left out of the mirror: %s", error.what());
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

int ProviderService::run() {
  const std::stop_token stop = synckit::currentStopToken();
  std::mutex mutex;
  std::condition_variable_any woken;
  bool signalled = false;
  std::optional<synckit::SyncSignalListener> listener;
  try {
    listener.emplace(synckit::ProviderPaths::workingSetSignalName(), [&] {
      std::lock_guard lock(mutex);
      signalled = true;
      woken.notify_all();
    });
  } catch (const synckit::Error& error) {
    // The change log is still followed, only less promptly.
    log_.error("Could not listen for the working-set signal: %s", error.what());
  }
  log_.info("Keeping \u201c%s\u201d in step with the store", mirror_->path().c_str());

  int status = 0;
  auto retryDelay = firstRetryDelay;
  try {
    for (;;) {
      if (domainRemoved()) {
        log_.info("The file-provider domain was removed; stopping");
        break;
      }
      const bool updated = runUpdate();
      if (options_.once) {
        status = updated ? 0 : 1;
        break;
      }
      const bool retrying = !updated || !index_->retries().empty();
      if (!retrying) retryDelay = firstRetryDelay;
      const auto retryAt = std::chrono::steady_clock::now() + retryDelay;
      if (retrying) retryDelay = std::min<std::chrono::seconds>(retryDelay * 2, longestRetryDelay);

      std::unique_lock lock(mutex);
      for (;;) {
        if (woken.wait_for(lock, stop, tick, [&] { return signalled; })) {
          signalled = false;
          break;
        }
        if (stop.stop_requested()) throw synckit::CancellationError();
        lock.unlock();
        bool due = retrying && std::chrono::steady_clock::now() >= retryAt;
        try {
          due = due || domainRemoved() || store_->currentAnchor() != index_->anchor();
        } catch (const synckit::Error&) {
          due = true;  // the update reports what is wrong
        }
        lock.lock();
        if (due) break;
      }
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
