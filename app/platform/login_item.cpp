#include "app/platform/login_item.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "synckit/base/bytes.h"
#include "synckit/base/error.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/atomic_file.h"

namespace halvark {
namespace {

std::string runningExecutable() {
  std::string path(4096, '\0');
  ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= path.size()) return "halvark";
  path.resize(static_cast<std::size_t>(length));
  // An executable replaced by an upgrade while running reads as deleted; the
  // new one is at the same path.
  constexpr std::string_view deleted = " (deleted)";
  if (path.ends_with(deleted)) path.resize(path.size() - deleted.size());
  return path;
}

// What the session manager decides from an entry: an entry is skipped when
// its [Desktop Entry] group says Hidden=true or, on GNOME-like sessions,
// X-GNOME-Autostart-enabled=false.
bool entryEnabled(const synckit::Bytes& content) {
  std::istringstream lines(std::string(content.begin(), content.end()));
  bool inMainGroup = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with('[')) {
      inMainGroup = line.starts_with("[Desktop Entry]");
      continue;
    }
    if (!inMainGroup) continue;
    auto equals = line.find('=');
    if (equals == std::string::npos) continue;
    auto trim = [](std::string text) {
      auto first = text.find_first_not_of(" \t\r");
      auto last = text.find_last_not_of(" \t\r");
      return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
    };
    std::string key = trim(line.substr(0, equals));
    std::string value = trim(line.substr(equals + 1));
    if (key == "Hidden" && value == "true") return false;
    if (key == "X-GNOME-Autostart-enabled" && value == "false") return false;
  }
  return true;
}

std::vector<std::filesystem::path> systemEntries() {
  const char* value = std::getenv("XDG_CONFIG_DIRS");
  std::string dirs = value && *value ? value : "/etc/xdg";
  std::vector<std::filesystem::path> entries;
  std::istringstream parts(dirs);
  for (std::string dir; std::getline(parts, dir, ':');) {
    std::filesystem::path path(dir);
    if (path.is_absolute()) entries.push_back(path / "autostart" / LoginItem::entryName);
  }
  return entries;
}

std::string entryText(const std::string& command, bool hidden) {
  std::string text =
      "[Desktop Entry]\n"
      "Type=Application\n"
      "Name=Halvark\n"
      "Comment=Keeps your brains in step with this computer\n"
      "Exec=" +
      LoginItem::execValue(command) +
      "\n"
      "Icon=halvark\n"
      "Terminal=false\n";
  text += hidden ? "Hidden=true\nX-GNOME-Autostart-enabled=false\n"
                 : "X-GNOME-Autostart-enabled=true\n";
  return text;
}

}  // namespace

LoginItem::LoginItem() : LoginItem(runningExecutable()) {}

LoginItem::LoginItem(std::string command) : command_(std::move(command)) {}

std::filesystem::path LoginItem::userEntry() {
  // The configuration directory is the one the shared defaults live in:
  // $XDG_CONFIG_HOME/halvark/defaults.json.
  auto defaults = synckit::AppGroup::sharedDefaults();
  if (!defaults) throw synckit::PosixError(ENOENT);
  return defaults->file().parent_path().parent_path() / "autostart" / entryName;
}

bool LoginItem::enabled() const {
  std::filesystem::path entry;
  try {
    entry = userEntry();
  } catch (const synckit::PosixError&) {
    return systemEntryEnabled();
  }
  try {
    if (auto content = synckit::AtomicFile::read(entry)) return entryEnabled(*content);
  } catch (const synckit::PosixError&) {
    // An entry that cannot be read is one the session manager cannot read
    // either.
    return false;
  }
  return systemEntryEnabled();
}

bool LoginItem::systemEntryEnabled() const {
  for (const auto& entry : systemEntries()) {
    try {
      // The first directory that holds the entry decides.
      if (auto content = synckit::AtomicFile::read(entry)) return entryEnabled(*content);
    } catch (const synckit::PosixError&) {
      return false;
    }
  }
  return false;
}

void LoginItem::setEnabled(bool on) {
  std::filesystem::path entry = userEntry();
  if (!on && !systemEntryEnabled()) {
    synckit::AtomicFile::remove(entry);
    return;
  }
  synckit::AtomicFile::createDirectories(entry.parent_path());
  std::string text = entryText(command_, !on);
  synckit::AtomicFile::write(entry, synckit::toBytes(text));
}

std::string LoginItem::execValue(const std::string& path) {
  // Arguments with reserved characters are double-quoted, with ", `, $ and
  // \ escaped inside the quotes; then the whole value is a desktop-entry
  // string, in which \ itself is escaped and % starts a field code.
  constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
  std::string argument;
  if (path.find_first_of(reserved) == std::string::npos) {
    argument = path;
  } else {
    argument = "\"";
    for (char c : path) {
      if (c == '"' || c == '`' || c == '$' || c == '\\') argument += '\\';
      argument += c;
    }
    argument += '"';
  }
  std::string value;
  for (char c : argument) {
    if (c == '%') {
      value += "%%";
    } else if (c == '\\') {
      value += "\\\\";
    } else if (c == '\n') {
      value += "\\n";
    } else {
      value += c;
    }
  }
  return value;
}

}  // namespace halvark
