#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/base/timestamp.h"
#include "synckit/store/node_kind.h"

namespace synckit {

// One node of a full brain snapshot, as a reset answer lists them.
struct SnapshotNode {
  std::string nodeId;
  std::string path;
  std::string title;
  bool isDirectory = false;
  NodeKind kind = NodeKind::text;
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;
  Timestamp updatedAt;

  bool operator==(const SnapshotNode&) const = default;
};

}  // namespace synckit
