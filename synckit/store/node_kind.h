#pragma once

#include <optional>
#include <string_view>

namespace synckit {

// The two kinds of file node: text content or an opaque blob.
enum class NodeKind { text, blob };

constexpr std::string_view toString(NodeKind kind) {
  return kind == NodeKind::text ? "text" : "blob";
}

constexpr std::optional<NodeKind> parseNodeKind(std::string_view text) {
  if (text == "text") return NodeKind::text;
  if (text == "blob") return NodeKind::blob;
  return std::nullopt;
}

}  // namespace synckit
