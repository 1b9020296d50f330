#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/base/uuid.h"
#include "synckit/store/node_kind.h"

namespace synckit {

// One file whose content must be fetched after a page of the feed or a reset
// was applied: the node as it stood when the request was made.
struct DownloadRequest {
  Uuid brainId;
  std::string nodeId;
  std::string path;
  NodeKind kind = NodeKind::text;
  // The node's content version when the request was made.
  std::int64_t contentVersion = 0;
  // The feed cursor of the page that caused it.
  std::optional<std::string> cursor;

  bool operator==(const DownloadRequest&) const = default;
};

}  // namespace synckit
