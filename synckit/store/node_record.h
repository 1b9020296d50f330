#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/store/node_kind.h"

namespace synckit {

// The last known state of one file or folder of a brain.
struct NodeRecord {
  Uuid brainId;
  std::string nodeId;
  // Brain-relative, "/"-separated, no leading "/".
  std::string path;
  std::string title;
  bool isDirectory = false;
  NodeKind kind = NodeKind::text;
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;
  Timestamp updatedAt;
  std::int64_t contentVersion = 0;
  // Exists only on this machine, not (yet) on the server.
  bool localOnly = false;
  // Why the last upload of this node failed; absent when it did not.
  std::optional<std::string> uploadError;

  bool operator==(const NodeRecord&) const = default;
};

}  // namespace synckit
