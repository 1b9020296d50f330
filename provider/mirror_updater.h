#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "provider/download_pool.h"
#include "synckit/base/logger.h"
#include "synckit/base/uuid.h"

namespace synckit {
class LocalIndex;
class MetadataStore;
}  // namespace synckit

namespace halvark::provider {

class FreedesktopTrash;
class MirrorRoot;

// Brings the mirror folder in step with the store: one folder per brain, a
// folder per folder node, a file per file node, following the store's change
// log from the anchor the local index keeps.
//
// What it promises, whatever the order of events and wherever a crash cuts
// an update short (the next update() then converges):
// - nothing is written, renamed or removed outside the mirror; a node whose
//   path breaks the path rules or leads through a symbolic link or a file is
//   skipped with one log line and reported to the skip handler;
// - an item whose bytes differ from what the index says the provider wrote
//   there (a local edit not yet journalled), an unindexed file with other
//   bytes than the download, and a folder holding either, are never
//   replaced, moved to the trash or removed: "Kept local …" is logged once
//   and the item stays for the conflict handling of the upward half;
// - what the journal records in the index (an edit queued for upload) counts
//   as the provider's own, and is not overwritten while the edit waits for
//   upload; a download with the bytes a row records (the upload coming
//   back) is adopted without rewriting, and when the file changed again
//   since, only the row's version moves; the row of a file queued for
//   creation is never trashed and passes to the node the upload makes at
//   its path;
// - removed nodes go to the freedesktop trash; moves are renames (a folder
//   once, its children with it), never downloads;
// - the disk changes first and the index follows, so an interrupted update
//   finds either the old state or the new one on disk, and adopts a file
//   whose bytes equal the download;
// - each path the provider writes, moves or removes is marked in the store
//   as its own write (brain-relative path; a move marks both ends), before
//   the change, so that the watcher of the upward half can tell its events
//   from the user's.
//
// Not thread-safe: one thread calls update() at a time (the provider's main
// loop). Downloads run on a DownloadPool of its own for the length of an
// update(); the calling thread decides and records each commit, and the
// renames of a batch run side by side on short-lived helper threads.
class MirrorUpdater {
 public:
  struct Options {
    std::size_t downloadWorkers = DownloadPool::defaultWorkers;
    // Where download progress is published; nowhere when absent.
    std::optional<std::filesystem::path> progressFile;
    // The shortest time between two progress files while downloading.
    std::chrono::milliseconds progressInterval{250};

    bool operator==(const Options&) const = default;
  };

  // What one update() did.
  struct Summary {
    int written = 0;  // files downloaded and put in place
    int adopted = 0;  // files found on disk with the downloaded bytes
    int moved = 0;    // renames of files and folders, brain folders included
    int trashed = 0;  // items moved to the trash
    int kept = 0;     // local items left alone although the store disagrees
    int skipped = 0;  // nodes not shown: invalid path, symbolic link, file in the way
    int failed = 0;   // downloads and disk operations put on the retry list

    bool operator==(const Summary&) const = default;
  };

  // Called on the updating thread once for every skipped node: the brain,
  // the node's brain-relative path ("" for the brain's own folder) and why.
  using SkipHandler = std::function<void(const synckit::Uuid& brainId, const std::string& path,
                                         const std::string& reason)>;

  // Everything must outlive the updater.
  MirrorUpdater(synckit::MetadataStore& store, synckit::LocalIndex& index, MirrorRoot& mirror,
                FreedesktopTrash& trash, DownloadPool::Fetch fetch, Options options);
  MirrorUpdater(const MirrorUpdater&) = delete;
  MirrorUpdater& operator=(const MirrorUpdater&) = delete;

  void setSkipHandler(SkipHandler handler) { onSkipped_ = std::move(handler); }

  // Applies every change after the index's anchor (the whole store the
  // first time), retries what failed before, then moves the anchor. Throws
  // CancellationError when the thread's work is cancelled (downloads in
  // flight are stopped and their staged files removed; the anchor stays),
  // and lets store and index failures through (the anchor stays, so the
  // next update starts over).
  Summary update();

  // Skipped nodes since construction.
  int skippedCount() const noexcept { return skippedCount_; }

 private:
  struct Pass;
  friend struct Pass;

  synckit::MetadataStore& store_;
  synckit::LocalIndex& index_;
  MirrorRoot& mirror_;
  FreedesktopTrash& trash_;
  DownloadPool::Fetch fetch_;
  Options options_;
  SkipHandler onSkipped_;
  synckit::Logger log_;
  // Paths already reported as kept or skipped, so each is logged once.
  std::set<std::string> reported_;
  int skippedCount_ = 0;
};

}  // namespace halvark::provider
