#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "provider/local_change.h"
#include "synckit/base/logger.h"
#include "synckit/platform/conflict_spool.h"

namespace synckit {
class LocalIndex;
class MetadataStore;
}  // namespace synckit

namespace halvark::provider {

class MirrorRoot;

// Turns what the user did in the mirror (settled LocalChanges from the
// watcher or a rescan) into pending changes in the store, for the sync
// loop to upload: new or changed files as creates and updates with their
// bytes in the spool, renames and moves as moves, removals as deletes, new
// folders as mkdir.
//
// What it promises:
// - the same change applied twice journals once: an item whose disk state
//   is what the index records (the provider's own write, or an edit
//   journalled before) is left alone, so the provider's own writes and a
//   rescan after the watcher saw everything add nothing. Own-write marks on
//   the paths are consumed on the way;
// - new data first: an edit's bytes are in the spool before its pending
//   change commits (one store transaction), and the index records the
//   journalled state only after that, so a crash between them journals the
//   edit again at worst;
// - a refusal (a name the server does not take, a file over the upload
//   limit, a move between brains, a move of a brain's own folder) never
//   touches the user's item: it stays where the user put it, and the text
//   goes to the log and to synckit::SyncErrorLog (each path and reason
//   once per journal);
// - an edit based on content that a remote change has replaced since is
//   not uploaded over it: the user's version becomes a conflicted copy
//   beside the original (its file renamed to the copy's name), and the
//   original path is left for the updater to fill with the remote content;
// - a file or folder made at the top of the mirror, outside every brain's
//   folder, goes to the inbox brain: it is renamed into that brain's folder
//   (never replacing; " 2", " 3" … on a clash) and journalled there. An
//   item moved out of its brain to the top is a move to the inbox brain's
//   top, refused when that is another brain.
//
// Not thread-safe: the provider's loop calls apply() on the thread that
// runs the updater, never during an update. Throws the store's, index's
// and spool's errors (the caller rescans later; what was journalled stays
// journalled); an item that vanishes or changes while it is read is passed
// over, since the watcher reports it again.
class LocalJournal {
 public:
  struct Outcome {
    // Pending changes queued, conflicted copies included: the caller posts
    // the sync-now signal when this is not 0.
    int journalled = 0;
    // Texts of the changes refused by this call (already logged and
    // appended to the sync error log).
    std::vector<std::string> refusals;

    bool operator==(const Outcome&) const = default;
  };

  // Everything must outlive the journal. `spool` is where edits wait.
  LocalJournal(synckit::MetadataStore& store, synckit::LocalIndex& index, MirrorRoot& mirror,
               synckit::ConflictSpool spool, synckit::Logger log);
  LocalJournal(const LocalJournal&) = delete;
  LocalJournal& operator=(const LocalJournal&) = delete;

  // Brings the mirror up to the store (the updater's update()). Called at
  // most once per apply(), when an edit looks stale: the store has a newer
  // version of the file than the index while the index lags behind the
  // store, which is also what this device's own upload looks like until
  // the updater has seen it. Without it, such an edit is diverted to a
  // conflicted copy, which keeps both versions.
  void setCatchUp(std::function<void()> catchUp) { catchUp_ = std::move(catchUp); }

  Outcome apply(const std::vector<LocalChange>& changes);

  // Brain folders the index knows but the mirror lacks, found before a
  // rescan (which leaves their items alone). A folder at the top of the
  // mirror holding the brain's files (by inode) is the brain's folder
  // renamed while nobody watched: it is renamed back. Otherwise the folder
  // is gone and the brain's rows are forgotten, so that the updater lays
  // the brain out afresh. Either way nothing is deleted on the server, as
  // for a brain folder moved or removed while watched, and the refusal is
  // reported.
  Outcome recoverBrainFolders();

  // The index keys the row of a file queued for creation with this prefix
  // and the pending change's id, until the node its upload makes takes the
  // row over.
  static constexpr std::string_view placeholderPrefix = "pending:";
  static bool isPlaceholder(std::string_view nodeId) {
    return nodeId.starts_with(placeholderPrefix);
  }

 private:
  struct Batch;
  friend struct Batch;

  synckit::MetadataStore& store_;
  synckit::LocalIndex& index_;
  MirrorRoot& mirror_;
  synckit::ConflictSpool spool_;
  synckit::Logger log_;
  std::function<void()> catchUp_;
  // Refusals already reported (path and text), so that a rescan does not
  // repeat them.
  std::set<std::pair<std::string, std::string>> refused_;
};

}  // namespace halvark::provider
