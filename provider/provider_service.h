#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "provider/local_change.h"
#include "synckit/base/error.h"
#include "synckit/base/logger.h"

namespace synckit {
class CurlTransport;
class FileLock;
class LocalIndex;
class MetadataStore;
class SyncAPIClient;
class TokenManager;
class TokenPersisting;
}  // namespace synckit

namespace halvark::provider {

class FreedesktopTrash;
class LocalJournal;
class MirrorRoot;
class MirrorUpdater;
class MirrorWatcher;
class SettleQueue;

// The halvark-provider process: one per container. It holds the container's
// provider lock, opens the shared store, the token set, its local index and
// the mirror folder, and works both ways between the store and the mirror:
// - down: an update at start, then one whenever the working-set signal
//   arrives or the store's change log has moved on (checked every 2
//   seconds);
// - up: the mirror watched from the start, a rescan journalling what
//   changed while nothing watched (at start, and after lost events), then
//   the watcher's changes journalled in batches as they settle; the
//   sync-now signal after each batch that queued something;
// until it is stopped or the application removes its domain. Updates and
// the journal run on the one thread of run(), never at once.
//
// One thread constructs it and calls run(); run() honours that thread's
// ambient stop token (SIGTERM and SIGINT request it in main()).
class ProviderService {
 public:
  struct Options {
    // One update, then exit.
    bool once = false;
    // The mirror folder instead of ProviderPaths::mirrorFolder().
    std::optional<std::filesystem::path> mirror;

    bool operator==(const Options&) const = default;
  };

  // The command line was not understood; the text says how to use it.
  class UsageError : public synckit::Error {
   public:
    explicit UsageError(const std::string& problem);
  };

  // Another provider holds the container's lock.
  class AlreadyRunning : public synckit::Error {
   public:
    AlreadyRunning() : Error("halvark-provider is already running for this container") {}
  };

  // The identifier of the domain the application registers for the mirror.
  static constexpr std::string_view domainIdentifier = "halvark";

  // The arguments after the program name: --once and --mirror PATH.
  static Options parseArguments(const std::vector<std::string>& arguments);

  // Takes the container's provider lock (AlreadyRunning when another
  // provider has it), then opens everything it works with. Throws whatever
  // opening them throws (no container, an unusable mirror folder).
  explicit ProviderService(Options options);
  ~ProviderService();
  ProviderService(const ProviderService&) = delete;
  ProviderService& operator=(const ProviderService&) = delete;

  // Runs until stopped, until the domain is no longer registered, or after
  // one update with `once` (which neither watches nor journals); returns
  // the process's exit status (0, or 1 when the single update of `once`
  // failed). Throws CancellationError never: a stop ends it normally.
  int run();

 private:
  class Wakeup;
  using SteadyTime = std::chrono::steady_clock::time_point;

  bool domainRemoved();
  bool runUpdate();
  void reportSkipped();
  void follow(const std::stop_token& stop, const Wakeup& wakeup, std::atomic<bool>& signalled);
  void startWatching();
  void readEvents();
  void noteUnwatched();
  void rescan(bool settleFirst);
  void journal(const std::vector<LocalChange>& changes);
  void reportUnsupported(const std::string& path, const std::string& why);

  Options options_;
  synckit::Logger log_;
  std::filesystem::path container_;
  std::unique_ptr<synckit::FileLock> instanceLock_;
  std::unique_ptr<synckit::MetadataStore> store_;
  std::unique_ptr<synckit::LocalIndex> index_;
  std::unique_ptr<MirrorRoot> mirror_;
  std::unique_ptr<FreedesktopTrash> trash_;
  std::unique_ptr<synckit::CurlTransport> transport_;
  std::unique_ptr<synckit::TokenPersisting> tokens_;
  std::unique_ptr<synckit::TokenManager> tokenManager_;
  std::unique_ptr<synckit::SyncAPIClient> api_;
  std::unique_ptr<MirrorUpdater> updater_;
  std::unique_ptr<LocalJournal> journal_;
  std::unique_ptr<MirrorWatcher> watcher_;
  std::unique_ptr<SettleQueue> settle_;
  bool reportedRegistry_ = false;
  // What the last update could not show and what the watcher or a rescan
  // will not upload, for the application's recent sync errors; filled on
  // the run thread.
  std::vector<std::string> skipped_;
  std::set<std::string> reportedUnsupported_;
  // Some folders could not be watched (or none): rescans stand in.
  bool watchIncomplete_ = false;
  bool reportedWatchLimit_ = false;
  std::set<std::string> reportedUnwatched_;
  // When the next rescan is due (max: none is).
  SteadyTime rescanAt_ = SteadyTime::max();
};

}  // namespace halvark::provider
