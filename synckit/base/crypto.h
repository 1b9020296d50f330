#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "synckit/base/bytes.h"
#include "synckit/base/error.h"

namespace synckit {

// The system's secure random source failed.
class RandomSourceError : public Error {
 public:
  RandomSourceError() : Error("The system's secure random source failed.") {}
};

using Sha256Digest = std::array<std::uint8_t, 32>;

// `count` bytes from the cryptographically secure random source; throws
// RandomSourceError when it fails.
Bytes secureRandomBytes(std::size_t count);

Sha256Digest sha256(std::span<const std::uint8_t> data);
Sha256Digest sha256(std::string_view text);

// Incremental SHA-256 for content that arrives in pieces.
class Sha256Hasher {
 public:
  Sha256Hasher();
  ~Sha256Hasher();
  Sha256Hasher(const Sha256Hasher&) = delete;
  Sha256Hasher& operator=(const Sha256Hasher&) = delete;

  void update(std::span<const std::uint8_t> data);
  Sha256Digest finish();

 private:
  struct State;
  State* state_;
};

// Lower-case hexadecimal, two digits per byte.
std::string hexLower(std::span<const std::uint8_t> data);

std::string base64Encode(std::span<const std::uint8_t> data);
// Base64url without "=" padding.
std::string base64URLEncode(std::span<const std::uint8_t> data);

}  // namespace synckit
