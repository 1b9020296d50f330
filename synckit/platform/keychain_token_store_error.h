#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/base/error.h"

namespace synckit {

// The keychain (the Secret Service on Linux, or the token file standing in
// for it) refused an operation. Two errors are equal when their status codes
// are; the message only serves the user-facing description.
class KeychainTokenStoreError : public Error {
 public:
  enum class Kind { unexpectedStatus };

  // `message` is the keychain's own text for the status; "unknown error" is
  // shown when there is none.
  static KeychainTokenStoreError unexpectedStatus(
      std::int32_t status, std::optional<std::string> message = std::nullopt) {
    std::string text = message && !message->empty() ? *message : std::string("unknown error");
    return KeychainTokenStoreError(status,
                                   "Keychain error " + std::to_string(status) + ": " + text);
  }

  Kind kind() const noexcept { return Kind::unexpectedStatus; }
  std::int32_t status() const noexcept { return status_; }

  bool operator==(const KeychainTokenStoreError& other) const { return status_ == other.status_; }

 private:
  KeychainTokenStoreError(std::int32_t status, std::string description)
      : Error(std::move(description)), status_(status) {}

  std::int32_t status_;
};

}  // namespace synckit
