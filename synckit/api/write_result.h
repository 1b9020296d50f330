#pragma once

#include <string>

#include "synckit/api/node_ref.h"

namespace synckit {

// The answer to a file write or a move: the node written and the feed
// position that contains the write.
struct WriteResult {
  NodeRef node;
  std::string cursor;

  bool operator==(const WriteResult&) const = default;
};

}  // namespace synckit
