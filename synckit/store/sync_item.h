#pragma once

#include <variant>

#include "synckit/store/brain_record.h"
#include "synckit/store/node_record.h"
#include "synckit/store/sync_item_identifier.h"

namespace synckit {

// An item the file-provider side enumerates: a brain folder or a node.
struct SyncItem {
  enum class Kind { brain, node };

  struct Brain {
    BrainRecord record;
    bool operator==(const Brain&) const = default;
  };
  struct Node {
    NodeRecord record;
    bool operator==(const Node&) const = default;
  };

  // Alternatives in the order of Kind.
  std::variant<Brain, Node> value;

  static SyncItem brain(BrainRecord record) { return {Brain{std::move(record)}}; }
  static SyncItem node(NodeRecord record) { return {Node{std::move(record)}}; }

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }

  SyncItemIdentifier identifier() const {
    if (auto* brain = std::get_if<Brain>(&value)) {
      return SyncItemIdentifier::brain(brain->record.brainId);
    }
    const NodeRecord& node = std::get<Node>(value).record;
    return SyncItemIdentifier::node(node.brainId, node.nodeId);
  }

  bool operator==(const SyncItem&) const = default;
};

}  // namespace synckit
