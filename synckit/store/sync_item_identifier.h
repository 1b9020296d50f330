#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "synckit/base/uuid.h"

namespace synckit {

// Names every item the file-provider side sees: the root, a brain (a
// top-level folder) or a node inside a brain. The string form is stored in
// the change log and handed to the provider, so it is a persistent format:
// "root", "brain:{UUID}", "node:{UUID}:{nodeId}".
//
// A plain value; safe to copy between threads.
struct SyncItemIdentifier {
  enum class Kind { brain, node, root };

  struct Brain {
    Uuid brainId;
    bool operator==(const Brain&) const = default;
  };
  struct Node {
    Uuid brainId;
    std::string nodeId;
    bool operator==(const Node&) const = default;
  };
  struct Root {
    bool operator==(const Root&) const = default;
  };

  // Alternatives in the order of Kind.
  std::variant<Brain, Node, Root> value{Root{}};

  static SyncItemIdentifier root() { return {Root{}}; }
  static SyncItemIdentifier brain(const Uuid& brainId) { return {Brain{brainId}}; }
  // `nodeId` must not be empty: the text form could not be parsed back. The
  // wire decoders refuse an empty node id, so none reaches the store.
  static SyncItemIdentifier node(const Uuid& brainId, std::string nodeId) {
    return {Node{brainId, std::move(nodeId)}};
  }

  // Anything that is not exactly one of the three forms gives nothing; a
  // brain UUID may be written in either case.
  static std::optional<SyncItemIdentifier> parse(std::string_view text);

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  std::string string() const;
  // Replaces `buffer` with the string form of node(brainId, nodeId) from an
  // already formatted brain UUID, for callers that have that text at hand.
  static void writeNodeString(std::string& buffer, const Uuid::Text& brainId,
                              std::string_view nodeId);
  // The brain the item belongs to; absent for the root.
  std::optional<Uuid> brainId() const;

  bool operator==(const SyncItemIdentifier&) const = default;
};

}  // namespace synckit

template <>
struct std::hash<synckit::SyncItemIdentifier> {
  std::size_t operator()(const synckit::SyncItemIdentifier& identifier) const noexcept;
};

// Encodes as its string form; a string that does not parse fails with
// DecodingError(dataCorrupted, "Invalid item identifier: {string}").
template <>
struct nlohmann::adl_serializer<synckit::SyncItemIdentifier> {
  static void to_json(nlohmann::json& json, const synckit::SyncItemIdentifier& identifier);
  static synckit::SyncItemIdentifier from_json(const nlohmann::json& json);
};
