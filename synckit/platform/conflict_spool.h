#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "synckit/base/bytes.h"

namespace synckit {

// A flat directory of file contents the system must keep outside the mirror
// until it has dealt with them: a local edit waiting for upload
// ("edit-{id}"), a conflicted copy waiting for upload ("copy-{id}"), both
// keyed by the pending change's id, and the last known content of a node
// ("node-{hex of the node id's UTF-8 bytes}"). For one id at most one of the
// edit and the copy exists.
//
// No lock of its own: entries are per pending change or node, and the caller
// of prune() decides under the store's lock (ConflictSpoolPruner). Any
// thread. Failures throw PosixError.
struct ConflictSpool {
  std::filesystem::path directory;

  // Creates the directory if needed and replaces the entry atomically, so
  // a failed write leaves no partial file behind.
  void write(std::span<const std::uint8_t> bytes, std::string_view name) const;
  // Absent when the entry does not exist.
  std::optional<Bytes> read(std::string_view name) const;
  bool exists(std::string_view name) const;
  // Removing a missing entry succeeds.
  void remove(std::string_view name) const;

  // Keeps `bytes` as the conflicted copy of pending change `id`, dropping its edit.
  void writeNewCopy(std::span<const std::uint8_t> bytes, std::int64_t id) const;
  // Keeps `bytes` as the edit of pending change `id`, dropping its copy.
  void writeEdit(std::span<const std::uint8_t> bytes, std::int64_t id) const;
  // The edit of pending change `id`, else its copy, else absent.
  std::optional<Bytes> pendingBytes(std::int64_t id) const;

  static std::string editKey(std::int64_t id);
  static std::string copyKey(std::int64_t id);
  static std::string nodeKey(std::string_view nodeId);

  // Deletes every edit and copy whose pending change `isPendingChange`
  // denies, every node entry whose node `isKnownNode` denies, and
  // temporaries of writes that a crash cut short over an hour ago; leaves
  // names it does not recognise. The first file that cannot be deleted ends
  // the pass with its error.
  void prune(const std::function<bool(std::int64_t id)>& isPendingChange,
             const std::function<bool(const std::string& nodeId)>& isKnownNode) const;

  bool operator==(const ConflictSpool&) const = default;
};

}  // namespace synckit
