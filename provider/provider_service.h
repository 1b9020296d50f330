#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
class MirrorRoot;
class MirrorUpdater;

// The halvark-provider process: one per container. It holds the container's
// provider lock, opens the shared store, the token set, its local index and
// the mirror folder, and keeps the mirror in step with the store: an update
// at start, then one whenever the working-set signal arrives or the store's
// change log has moved on (checked every 2 seconds), until it is stopped
// or the application removes its domain.
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
  // one update with `once`; returns the process's exit status (0, or 1 when
  // the single update of `once` failed). Throws CancellationError never:
  // a stop ends it normally.
  int run();

 private:
  bool domainRemoved();
  bool runUpdate();
  void reportSkipped();

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
  bool reportedRegistry_ = false;
  // What the last update could not show, for the application's recent
  // sync errors; filled by the updater's skip handler on the run thread.
  std::vector<std::string> skipped_;
};

}  // namespace halvark::provider
