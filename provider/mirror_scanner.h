#pragma once

#include <functional>
#include <string>
#include <vector>

#include "provider/local_change.h"

namespace synckit {
class LocalIndex;
}  // namespace synckit

namespace halvark::provider {

class MirrorRoot;

// The rescan: what the user did in the mirror folder while nobody watched
// (the provider was stopped, or the watcher lost events), found by comparing
// the disk with the local index.
namespace MirrorScanner {

// Told about an item the scan leaves out (a symbolic link, a special file,
// something it cannot read): its mirror-relative path and a text saying
// why. Called at most once per path in a scan.
using UnsupportedHandler = std::function<void(const std::string& path, const std::string& why)>;

// Walks every brain folder and the top of the mirror without following a
// symbolic link, and returns the changes that take the index to the disk,
// in an order that can be applied one after the other, each path naming
// the item as it is once the changes before it are applied: moves first
// (each after whatever makes its target free and its folder exist), then
// removals, then new and edited items sorted by path (a folder before its
// content). A moved or removed folder is one change, not one per item in it.
//
// - An indexed file that kept its size, mtime and inode is unchanged
//   without being read; otherwise it is unchanged when its SHA-256 still
//   equals the index's contentHash (only touched), and then its row is
//   refreshed to what is on disk, so that the next scan need not read it.
// - An item at an unindexed path that has the inode of an indexed item of
//   its kind no longer at its own path was moved there; a moved file whose
//   content differs is also `written` at its new path.
// - A new item at the top of the mirror, outside every brain folder, is
//   reported by its top-level path alone: the journal takes it into the
//   inbox brain whole.
// - Left out: the provider's own items and names that are never synced
//   (MirrorNames), symbolic links, special files and what cannot be read.
//   The index's items that the scan cannot see (under an unreadable
//   folder, in a missing brain folder, waiting aside after a crash) are
//   neither moved nor removed.
//
// Throws MirrorPathError when the mirror itself cannot be listed, and the
// index's errors. Call it on the thread that runs the updater, never while
// an update runs.
std::vector<LocalChange> scan(const MirrorRoot& mirror, synckit::LocalIndex& index,
                              const UnsupportedHandler& onUnsupported = {});

}  // namespace MirrorScanner
}  // namespace halvark::provider
