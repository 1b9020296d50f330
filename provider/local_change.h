#pragma once

#include <optional>
#include <string>

namespace halvark::provider {

// One thing the user did in the mirror folder, as the watcher (once the item
// has settled) or the rescan found it. Paths are mirror-relative: the brain's
// folder, "/", then the path inside the brain; an item at the top of the
// mirror has no "/".
struct LocalChange {
  enum class Kind {
    written,     // a file is new or has new content (the journal tells which)
    madeFolder,  // a folder is new
    moved,       // an item (and, for a folder, everything below it) now lives at `path`
    removed,     // the item at `path` is gone
  };

  Kind kind = Kind::written;
  std::string path;
  std::optional<std::string> fromPath;  // `moved` only: where the item was
  bool isDirectory = false;

  bool operator==(const LocalChange&) const = default;
};

}  // namespace halvark::provider
