#include "synckit/platform/conflict_spool.h"

#include <cerrno>

#include "synckit/base/crypto.h"
#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"

namespace synckit {
namespace {

// Entry names are single path components made by this type; anything else
// would reach outside the spool.
std::filesystem::path entryPath(const std::filesystem::path& directory, std::string_view name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos ||
      name.find('\0') != std::string_view::npos) {
    throw PosixError(EINVAL);
  }
  return directory / name;
}

}  // namespace

void ConflictSpool::write(std::span<const std::uint8_t> bytes, std::string_view name) const {
  std::filesystem::path file = entryPath(directory, name);
  AtomicFile::createDirectories(directory);
  AtomicFile::write(file, bytes, 0600);
}

std::optional<Bytes> ConflictSpool::read(std::string_view name) const {
  return AtomicFile::read(entryPath(directory, name));
}

bool ConflictSpool::exists(std::string_view name) const {
  std::error_code error;
  return std::filesystem::exists(entryPath(directory, name), error);
}

void ConflictSpool::remove(std::string_view name) const {
  AtomicFile::remove(entryPath(directory, name));
}

void ConflictSpool::writeNewCopy(std::span<const std::uint8_t> bytes, std::int64_t id) const {
  remove(editKey(id));
  write(bytes, copyKey(id));
}

void ConflictSpool::writeEdit(std::span<const std::uint8_t> bytes, std::int64_t id) const {
  remove(copyKey(id));
  write(bytes, editKey(id));
}

std::optional<Bytes> ConflictSpool::pendingBytes(std::int64_t id) const {
  if (auto edit = read(editKey(id))) return edit;
  return read(copyKey(id));
}

std::string ConflictSpool::editKey(std::int64_t id) { return "edit-" + std::to_string(id); }

std::string ConflictSpool::copyKey(std::int64_t id) { return "copy-" + std::to_string(id); }

std::string ConflictSpool::nodeKey(std::string_view nodeId) {
  return "node-" +
         hexLower(std::span(reinterpret_cast<const std::uint8_t*>(nodeId.data()), nodeId.size()));
}

}  // namespace synckit
