#pragma once

#include <string_view>

namespace halvark::provider {

// Which mirror-relative paths stand for the user's items. The watcher, its
// settle queue and the rescan agree on these, so that what one leaves out
// the others never report either. Pure; any thread.
namespace MirrorNames {

// Where an update parks an item whose place is still taken.
inline constexpr std::string_view movingAsidePrefix = ".halvark-moving-";

// The provider's own places, never the user's: the staging folder, the
// ".halvark-moving-" names an update parks items under (at the top of the
// mirror or of a brain's folder), and a trash folder at the top of the
// mirror (where the mirror is the top of its file system).
bool isProviderOwned(std::string_view path);

// Files that editors keep beside a document while it is open or being
// saved: swap and lock files, backups ("name~") and the temporary files
// that are renamed over the original. Judged by the last component.
bool isEditorTemporary(std::string_view path);

// Whether an item at `path` is ever uploaded: neither the provider's, nor
// a name the ignore list leaves out, nor (for a file) an editor's
// temporary.
bool isSynced(std::string_view path, bool isDirectory);

}  // namespace MirrorNames
}  // namespace halvark::provider
