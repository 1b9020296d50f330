#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "provider/mirror_root.h"
#include "synckit/api/downloaded_file.h"
#include "synckit/base/crypto.h"
#include "synckit/base/uuid.h"
#include "synckit/store/node_kind.h"

namespace synckit {
class SyncAPIClient;
class TokenManager;
}  // namespace synckit

namespace halvark::provider {

// One file to fetch: which node, at which content version, and where its
// bytes are meant to go.
struct DownloadJob {
  synckit::Uuid brainId;
  std::string nodeId;
  // Brain-relative, as the server names it.
  std::string nodePath;
  // Mirror-relative: where the updater will put the file.
  std::string mirrorPath;
  std::int64_t contentVersion = 0;
  synckit::NodeKind kind = synckit::NodeKind::text;
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;

  bool operator==(const DownloadJob&) const = default;
};

// A finished job: either the verified bytes in a staged file, ready to be
// committed, or why it failed.
struct DownloadResult {
  DownloadJob job;
  // Present exactly when the download succeeded.
  std::optional<MirrorRoot::StagedFile> staged;
  std::int64_t size = 0;
  synckit::Sha256Digest digest{};
  std::exception_ptr failure;
};

// Fetches files on a fixed set of worker threads and stages their bytes in
// the mirror, so that many small files are limited by the server rather
// than by round trips. The workers share whatever `fetch` uses (in the
// provider one API client, one token manager and one connection-reusing
// transport).
//
// A worker fetches, checks the size and SHA-256 that a blob job names
// (a mismatch is a failure, never a staged file), writes and flushes a
// staged file, and queues the result. Results are taken by one consumer
// thread with next() and takeReady(), which is where commits are
// serialised. At most 256 results (or 4 per worker) wait at once, enough
// for the consumer to commit large batches; beyond that, workers hold back
// until it catches up, so staged files and their descriptors stay bounded.
//
// submit(), next(), takeReady() and progress() may be called from any
// thread; next() and takeReady() are meant for one consumer. Destruction
// stops every worker (a transfer in flight is aborted through the worker's
// stop token) and drops unfinished work; staged files not taken are
// removed.
class DownloadPool {
 public:
  using Fetch = std::function<synckit::DownloadedFile(const DownloadJob&)>;

  struct Progress {
    std::int64_t filesRemaining = 0;
    std::int64_t bytesRemaining = 0;

    bool operator==(const Progress&) const = default;
  };

  static constexpr std::size_t defaultWorkers = 8;

  // `mirror` must outlive the pool; `fetch` is called on worker threads,
  // several at once, with the worker's stop token installed as the ambient
  // one.
  DownloadPool(Fetch fetch, MirrorRoot& mirror, std::size_t workers = defaultWorkers);
  ~DownloadPool();
  DownloadPool(const DownloadPool&) = delete;
  DownloadPool& operator=(const DownloadPool&) = delete;

  // The provider's fetch: readFile of the job's path at its content version,
  // retried once after a refreshed token. Both must outlive the pool.
  static Fetch readingWith(synckit::SyncAPIClient& api, synckit::TokenManager& tokens);

  void submit(DownloadJob job);

  // The next finished job, waiting for one; absent once every submitted job
  // has been handed out. Throws CancellationError when the calling thread's
  // work is cancelled while it waits.
  std::optional<DownloadResult> next();
  // The finished jobs waiting now, without waiting.
  std::vector<DownloadResult> takeReady();

  // Files and bytes not yet handed out by next(); a text file, whose size
  // is not known before it arrives, counts no bytes.
  Progress progress() const;

 private:
  void work(std::stop_token stop);
  DownloadResult run(DownloadJob job);

  Fetch fetch_;
  MirrorRoot& mirror_;
  const std::size_t capacity_;

  mutable std::mutex mutex_;
  std::condition_variable_any jobAvailable_;
  std::condition_variable_any resultAvailable_;
  std::deque<DownloadJob> queue_;       // guarded by mutex_
  std::deque<DownloadResult> results_;  // guarded by mutex_
  std::size_t running_ = 0;             // guarded by mutex_
  Progress progress_;                   // guarded by mutex_
  std::vector<std::jthread> workers_;
};

}  // namespace halvark::provider
