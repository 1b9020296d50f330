// Pruning: which spool files no pending change or node needs any more.
#include <charconv>
#include <chrono>
#include <system_error>

#include "synckit/base/error.h"
#include "synckit/base/utf8_text.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/platform/conflict_spool.h"

namespace synckit {
namespace {

// The pending-change id in an "edit-"/"copy-" name: an optionally signed
// decimal integer spanning the whole remainder.
std::optional<std::int64_t> parseDecimal(std::string_view text) {
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return std::nullopt;
  }
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::string> decodeHex(std::string_view text) {
  if (text.empty() || text.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    int high = hexDigit(text[i]);
    int low = hexDigit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(high * 16 + low));
  }
  return bytes;
}

// Every entry of `directory` that is not a folder. The spool has no folders
// of its own; one that appears there belongs to someone else.
std::vector<std::filesystem::path> listFiles(const std::filesystem::path& directory) {
  std::error_code error;
  std::filesystem::directory_iterator entries(directory, error);
  if (error) throw PosixError(error.value() > 0 ? error.value() : EIO);
  std::vector<std::filesystem::path> files;
  for (auto entry = std::filesystem::begin(entries); entry != std::filesystem::end(entries);
       entry.increment(error)) {
    if (error) throw PosixError(error.value() > 0 ? error.value() : EIO);
    std::error_code typeError;
    if (!entry->is_directory(typeError)) files.push_back(entry->path());
  }
  if (error) throw PosixError(error.value() > 0 ? error.value() : EIO);
  return files;
}

// AtomicFile's temporary for `name`: "." + name + "." + six characters.
bool isTemporaryName(std::string_view name) {
  return name.size() > 8 && name.starts_with('.') && name[name.size() - 7] == '.';
}

// A temporary this old belongs to a write that a crash cut short: nothing
// will rename it any more, and the entry it was meant to replace is intact.
// Younger ones may be a write in progress in the other process.
constexpr auto kAbandonedAfter = std::chrono::hours(1);

bool isAbandoned(const std::filesystem::path& file) {
  std::error_code error;
  auto modified = std::filesystem::last_write_time(file, error);
  return !error && std::filesystem::file_time_type::clock::now() - modified > kAbandonedAfter;
}

}  // namespace

void ConflictSpool::prune(const std::function<bool(std::int64_t id)>& isPendingChange,
                          const std::function<bool(const std::string& nodeId)>& isKnownNode) const {
  std::error_code error;
  if (!std::filesystem::is_directory(directory, error)) return;

  for (const std::filesystem::path& file : listFiles(directory)) {
    std::string name = file.filename().string();
    std::string_view view = name;
    bool obsolete = false;
    if (view.starts_with("edit-") || view.starts_with("copy-")) {
      auto id = parseDecimal(view.substr(5));
      obsolete = id && !isPendingChange(*id);
    } else if (view.starts_with("node-")) {
      auto bytes = decodeHex(view.substr(5));
      // Node ids are compared as text, so bytes that are not UTF-8 compare
      // as the text a decoder makes of them.
      obsolete = bytes && !isKnownNode(decodeUTF8Lossy(*bytes));
    } else if (isTemporaryName(view)) {
      obsolete = isAbandoned(file);
    }
    if (obsolete) AtomicFile::remove(file);
  }
}

}  // namespace synckit
