#pragma once

#include <string>

namespace synckit {

// The server's id of a node and the path it now has.
struct NodeRef {
  std::string nodeId;
  std::string path;

  bool operator==(const NodeRef&) const = default;
};

}  // namespace synckit
