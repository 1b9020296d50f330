#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/base/uuid.h"

namespace synckit {

// A conflicted copy the resolver made of a local version that lost. A plain
// value; safe to copy between threads.
struct ConflictCopy {
  Uuid brainId;
  std::string originalPath;
  std::string copyPath;
  // The copy's node id ("local:" + UUID).
  std::string nodeId;
  // The queued create that uploads the copy; absent when the copy stays on
  // this computer only.
  std::optional<std::int64_t> journalId;

  bool operator==(const ConflictCopy&) const = default;
};

}  // namespace synckit
