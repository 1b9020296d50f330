#pragma once

#include <string>
#include <variant>

#include "synckit/base/error.h"
#include "synckit/base/uuid.h"

namespace synckit {

// Failures of the metadata store that are not SQLite's own.
class MetadataStoreError : public Error {
 public:
  enum class Kind { unknownBrain, containerUnavailable, corruptRow };

  static MetadataStoreError unknownBrain(const Uuid& brainId) {
    return MetadataStoreError(Kind::unknownBrain, brainId,
                              "The brain " + brainId.toString() + " is not in the local store.");
  }
  // `groupIdentifier` names the application group whose container is missing.
  static MetadataStoreError containerUnavailable(std::string groupIdentifier) {
    std::string description = "The shared container for " + groupIdentifier + " is unavailable.";
    return MetadataStoreError(Kind::containerUnavailable, std::move(groupIdentifier),
                              std::move(description));
  }
  // `what` says what was wrong, e.g. invalid UUID "xyz".
  static MetadataStoreError corruptRow(std::string what) {
    std::string description = "The local store holds a damaged row: " + what;
    return MetadataStoreError(Kind::corruptRow, std::move(what), std::move(description));
  }

  Kind kind() const noexcept { return kind_; }
  const std::variant<Uuid, std::string>& payload() const noexcept { return payload_; }

  bool operator==(const MetadataStoreError& other) const {
    return kind_ == other.kind_ && payload_ == other.payload_;
  }

 private:
  MetadataStoreError(Kind kind, std::variant<Uuid, std::string> payload, std::string description)
      : Error(std::move(description)), kind_(kind), payload_(std::move(payload)) {}

  Kind kind_;
  std::variant<Uuid, std::string> payload_;
};

}  // namespace synckit
