#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace halvark {

// "Start at Login": an XDG autostart entry named halvark.desktop. The user's
// entry ($XDG_CONFIG_HOME/autostart, ~/.config by default) overrides one of
// the same name that a package installed system-wide ($XDG_CONFIG_DIRS,
// /etc/xdg by default), as the desktop's session manager reads them.
//
// The environment is read on each call. Any thread; calls are not
// serialised against each other.
class LoginItem {
 public:
  static constexpr std::string_view entryName = "halvark.desktop";

  // The entry starts `command`: by default the running executable, or
  // "halvark" when its path cannot be read.
  LoginItem();
  explicit LoginItem(std::string command);

  // True when the session manager would start Halvark at login: the user's
  // entry, or else a system-wide one, exists and is not hidden or disabled.
  bool enabled() const;

  // Writes the user's entry atomically; switching off removes it, or writes
  // a hidden one when a system-wide entry would still start Halvark. Throws
  // synckit::PosixError when the entry cannot be written or removed (ENOENT
  // when there is no configuration directory at all).
  void setEnabled(bool on);

  // $XDG_CONFIG_HOME/autostart/halvark.desktop; throws synckit::PosixError
  // (ENOENT) when neither XDG_CONFIG_HOME nor HOME names a directory.
  static std::filesystem::path userEntry();

  // The Exec value that runs `path` with no arguments, quoted and escaped
  // for a desktop entry. Pure.
  static std::string execValue(const std::string& path);

 private:
  bool systemEntryEnabled() const;

  std::string command_;
};

}  // namespace halvark
