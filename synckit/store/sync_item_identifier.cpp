#include "synckit/store/sync_item_identifier.h"

#include <nlohmann/json.hpp>

#include "synckit/base/error.h"

namespace synckit {
namespace {

constexpr std::string_view kRoot = "root";
constexpr std::string_view kBrainPrefix = "brain:";
constexpr std::string_view kNodePrefix = "node:";
constexpr std::size_t kUuidLength = 36;

}  // namespace

std::optional<SyncItemIdentifier> SyncItemIdentifier::parse(std::string_view text) {
  if (text == kRoot) return root();
  if (text.starts_with(kBrainPrefix)) {
    auto uuid = Uuid::parse(text.substr(kBrainPrefix.size()));
    if (!uuid) return std::nullopt;
    return brain(*uuid);
  }
  if (text.starts_with(kNodePrefix)) {
    std::string_view rest = text.substr(kNodePrefix.size());
    // The node id comes last and may itself contain ':'.
    if (rest.size() < kUuidLength + 2 || rest[kUuidLength] != ':') return std::nullopt;
    auto uuid = Uuid::parse(rest.substr(0, kUuidLength));
    if (!uuid) return std::nullopt;
    return node(*uuid, std::string(rest.substr(kUuidLength + 1)));
  }
  return std::nullopt;
}

std::string SyncItemIdentifier::string() const {
  switch (kind()) {
    case Kind::brain: {
      const Uuid::Text brainId = std::get<Brain>(value).brainId.toText();
      std::string text;
      text.reserve(kBrainPrefix.size() + brainId.size());
      text.append(kBrainPrefix).append(brainId.data(), brainId.size());
      return text;
    }
    case Kind::node: {
      const Node& node = std::get<Node>(value);
      std::string text;
      writeNodeString(text, node.brainId.toText(), node.nodeId);
      return text;
    }
    case Kind::root:
      break;
  }
  return std::string(kRoot);
}

void SyncItemIdentifier::writeNodeString(std::string& buffer, const Uuid::Text& brainId,
                                         std::string_view nodeId) {
  buffer.clear();
  buffer.reserve(kNodePrefix.size() + brainId.size() + 1 + nodeId.size());
  buffer.append(kNodePrefix).append(brainId.data(), brainId.size()).append(1, ':');
  buffer.append(nodeId);
}

std::optional<Uuid> SyncItemIdentifier::brainId() const {
  if (auto* brain = std::get_if<Brain>(&value)) return brain->brainId;
  if (auto* node = std::get_if<Node>(&value)) return node->brainId;
  return std::nullopt;
}

}  // namespace synckit

std::size_t std::hash<synckit::SyncItemIdentifier>::operator()(
    const synckit::SyncItemIdentifier& identifier) const noexcept {
  using Kind = synckit::SyncItemIdentifier::Kind;
  auto combine = [](std::size_t seed, std::size_t value) {
    return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
  };
  // Discriminators are fixed (root 0, brain 1, node 2) rather than taken from
  // the variant index, so the hash does not depend on declaration order.
  switch (identifier.kind()) {
    case Kind::root:
      return combine(0, 0);
    case Kind::brain: {
      const auto& brain = std::get<synckit::SyncItemIdentifier::Brain>(identifier.value);
      return combine(combine(0, 1), std::hash<synckit::Uuid>{}(brain.brainId));
    }
    case Kind::node: {
      const auto& node = std::get<synckit::SyncItemIdentifier::Node>(identifier.value);
      std::size_t seed = combine(combine(0, 2), std::hash<synckit::Uuid>{}(node.brainId));
      return combine(seed, std::hash<std::string>{}(node.nodeId));
    }
  }
  return 0;
}

void nlohmann::adl_serializer<synckit::SyncItemIdentifier>::to_json(
    nlohmann::json& json, const synckit::SyncItemIdentifier& identifier) {
  json = identifier.string();
}

synckit::SyncItemIdentifier nlohmann::adl_serializer<synckit::SyncItemIdentifier>::from_json(
    const nlohmann::json& json) {
  using synckit::DecodingError;
  if (!json.is_string()) {
    throw DecodingError(
        DecodingError::Kind::typeMismatch,
        "An item identifier must be a string, not " + std::string(json.type_name()) + ".");
  }
  const auto& text = json.get_ref<const std::string&>();
  auto identifier = synckit::SyncItemIdentifier::parse(text);
  if (!identifier) {
    throw DecodingError(DecodingError::Kind::dataCorrupted, "Invalid item identifier: " + text);
  }
  return *identifier;
}
