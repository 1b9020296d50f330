#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/store/pending_change_kind.h"

namespace synckit {

// One local change waiting in the upload queue (first in, first out by id).
struct PendingChange {
  // Queue position; absent until the change is enqueued.
  std::optional<std::int64_t> id;
  Uuid brainId;
  // The server's node id when known.
  std::optional<std::string> nodeId;
  PendingChangeKind changeKind = PendingChangeKind::create;
  std::string path;
  // Source path of a move.
  std::optional<std::string> fromPath;
  // The brain cursor the change was based on.
  std::optional<std::string> baseCursor;
  Timestamp createdAt;

  bool operator==(const PendingChange&) const = default;
};

}  // namespace synckit
