#pragma once

#include <filesystem>
#include <string_view>

#include "provider/mirror_root.h"

namespace halvark::provider {

// The desktop trash that remote deletes go to, so that nothing a user had is
// destroyed by the server alone. It is the user's home trash
// ($XDG_DATA_HOME/Trash, by default ~/.local/share/Trash) when that is on
// the mirror's file system, else ".Trash-<uid>" at the top of the file
// system holding the mirror (made 0700), so that an item is only ever
// renamed, never copied. Nothing is created before the first trash().
// One thread at a time.
class FreedesktopTrash {
 public:
  // `mirror` must outlive the trash.
  explicit FreedesktopTrash(MirrorRoot& mirror);

  // The trash folder chosen (holding "files" and "info").
  const std::filesystem::path& directory() const noexcept { return directory_; }

  // Moves the file or folder at the mirror-relative `relative` into the
  // trash and returns where it went (directory()/files/<name>). The
  // ".trashinfo" record (original absolute path, deletion time) is written
  // first under a name no other item uses (the item's name, else name.2,
  // name.3, …) and removed again when the move fails. Throws
  // FileNotFoundError when the item is absent, MirrorPathError when its path
  // is refused or the move fails.
  std::filesystem::path trash(std::string_view relative);

 private:
  MirrorRoot& mirror_;
  std::filesystem::path mirrorPath_;  // absolute, for the records
  std::filesystem::path directory_;
  bool atTopOfFileSystem_ = false;
};

}  // namespace halvark::provider
