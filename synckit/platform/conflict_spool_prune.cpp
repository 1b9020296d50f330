// ConflictSpool::prune lives apart from the entry operations because it is
// the only part of the spool that needs the metadata store.
#include <charconv>
#include <set>
#include <system_error>
#include <unordered_map>

#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/platform/conflict_spool.h"
#include "synckit/store/metadata_store.h"

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

// `bytes` as UTF-8 with every maximal ill-formed subsequence replaced by
// U+FFFD, the way text decoders do it, so that a name written for a node id
// maps back to that id and a damaged one maps to no id at all.
std::string repairedUTF8(std::string_view bytes) {
  static constexpr std::string_view replacement = "\xEF\xBF\xBD";
  std::string out;
  std::size_t i = 0;
  while (i < bytes.size()) {
    auto lead = static_cast<unsigned char>(bytes[i]);
    if (lead < 0x80) {
      out.push_back(static_cast<char>(lead));
      ++i;
      continue;
    }
    int trailing = 0;
    unsigned char lower = 0x80;
    unsigned char upper = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      trailing = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      trailing = 2;
      if (lead == 0xE0) lower = 0xA0;
      if (lead == 0xED) upper = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      trailing = 3;
      if (lead == 0xF0) lower = 0x90;
      if (lead == 0xF4) upper = 0x8F;
    } else {
      out += replacement;
      ++i;
      continue;
    }
    std::size_t j = i + 1;
    bool complete = true;
    for (int k = 0; k < trailing; ++k, ++j) {
      if (j >= bytes.size()) {
        complete = false;
        break;
      }
      auto c = static_cast<unsigned char>(bytes[j]);
      if (c < (k == 0 ? lower : 0x80) || c > (k == 0 ? upper : 0xBF)) {
        complete = false;
        break;
      }
    }
    if (complete) {
      out.append(bytes.substr(i, j - i));
    } else {
      out += replacement;
    }
    i = j;
  }
  return out;
}

// Every entry of `directory` that is not a folder. The spool has no folders
// of its own; one that appears there belongs to someone else.
std::vector<std::filesystem::path> listFiles(const std::filesystem::path& directory) {
  std::error_code error;
  std::filesystem::directory_iterator entries(directory, error);
  if (error) throw PosixError(error.value() > 0 ? error.value() : EIO);
  std::vector<std::filesystem::path> files;
  for (auto entry = std::filesystem::begin(entries); entry != std::filesystem::end(entries); entry.increment(error)) {
    if (error) throw PosixError(error.value() > 0 ? error.value() : EIO);
    std::error_code typeError;
    if (!entry->is_directory(typeError)) files.push_back(entry->path());
  }
  if (error) throw PosixError(error.value() > 0 ? error.value() : EIO);
  return files;
}

}  // namespace

void ConflictSpool::prune(MetadataStore& store) const {
  std::error_code error;
  if (!std::filesystem::is_directory(directory, error)) return;

  store.writeTransaction([&] {
    std::set<std::int64_t> pendingIds;
    for (const PendingChange& change : store.pendingChanges()) {
      if (change.id) pendingIds.insert(*change.id);
    }
    std::vector<BrainRecord> brains = store.brains();
    std::unordered_map<std::string, bool> nodeKnown;
    auto isKnownNode = [&](const std::string& nodeId) {
      auto cached = nodeKnown.find(nodeId);
      if (cached != nodeKnown.end()) return cached->second;
      bool known = false;
      for (const BrainRecord& brain : brains) {
        if (store.nodeWithId(brain.brainId, nodeId)) {
          known = true;
          break;
        }
      }
      nodeKnown.emplace(nodeId, known);
      return known;
    };

    for (const std::filesystem::path& file : listFiles(directory)) {
      std::string name = file.filename().string();
      std::string_view view = name;
      bool obsolete = false;
      if (view.starts_with("edit-") || view.starts_with("copy-")) {
        auto id = parseDecimal(view.substr(5));
        obsolete = id && !pendingIds.contains(*id);
      } else if (view.starts_with("node-")) {
        auto bytes = decodeHex(view.substr(5));
        obsolete = bytes && !isKnownNode(repairedUTF8(*bytes));
      }
      if (obsolete) AtomicFile::remove(file);
    }
  });
}

}  // namespace synckit
