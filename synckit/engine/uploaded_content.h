#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/api/write_result.h"
#include "synckit/store/node_kind.h"

namespace synckit {

// What the server accepted for one content upload: its answer (node and
// cursor) and the content it now holds. A plain value; safe to copy between
// threads.
struct UploadedContent {
  WriteResult result;
  NodeKind kind = NodeKind::text;
  // The blob's hash and byte count; absent for text.
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;

  bool operator==(const UploadedContent&) const = default;
};

}  // namespace synckit
