#include "provider/mirror_names.h"

#include <algorithm>
#include <cctype>
#include <string>

#include "synckit/platform/ignore_list.h"
#include "synckit/platform/provider_paths.h"

namespace halvark::provider::MirrorNames {
namespace {

std::string_view lastComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
  });
}

}  // namespace

bool isProviderOwned(std::string_view path) {
  const std::size_t slash = path.find('/');
  const std::string_view top = path.substr(0, slash);
  if (top == synckit::ProviderPaths::stagingFolderName || top.starts_with(movingAsidePrefix)) {
    return true;
  }
  if (top == ".Trash" || (top.starts_with(".Trash-") && isDigits(top.substr(7)))) return true;
  if (slash == std::string_view::npos) return false;
  const std::string_view rest = path.substr(slash + 1);
  return rest.substr(0, rest.find('/')).starts_with(movingAsidePrefix);
}

bool isEditorTemporary(std::string_view path) {
  const std::string_view name = lastComponent(path);
  if (name.empty()) return false;
  // Backups of vim, emacs, gedit and kate.
  if (name.ends_with('~')) return true;
  // Lock files: LibreOffice, office suites on shared folders, emacs.
  if (name.starts_with(".~lock.") && name.ends_with('#')) return true;
  if (name.starts_with("~$") || name.starts_with(".#")) return true;
  // emacs's auto-save file.
  if (name.size() > 2 && name.starts_with('#') && name.ends_with('#')) return true;
  // GLib's atomic replace (gedit and other GTK editors), LibreOffice's
  // temporary copy.
  if (name.starts_with(".goutputstream-")) return true;
  if (name.starts_with("lu") && name.ends_with(".tmp")) return true;
  if (name.ends_with(".kate-swp")) return true;
  // vim's swap files: ".name.swp", then ".swo", ".swn" … down to ".swa",
  // and ".swx" when it probes the folder.
  if (name.starts_with('.') && name.size() > 4) {
    const std::string_view end = name.substr(name.size() - 4);
    if (end.starts_with(".sw") && ((end[3] >= 'a' && end[3] <= 'p') || end[3] == 'x')) {
      return true;
    }
  }
  return false;
}

bool isSynced(std::string_view path, bool isDirectory) {
  return !isProviderOwned(path) && !synckit::IgnoreList::isIgnored(path) &&
         (isDirectory || !isEditorTemporary(path));
}

}  // namespace halvark::provider::MirrorNames
