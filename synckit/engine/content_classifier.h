#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <utility>
#include <variant>

#include "synckit/base/bytes.h"

namespace synckit {

// How a file's bytes travel to the server: as a text body or as an opaque
// blob. A plain value; safe to copy between threads.
struct ContentClassification {
  struct Text {
    std::string text;
    bool operator==(const Text&) const = default;
  };
  struct Blob {
    Bytes data;
    bool operator==(const Blob&) const = default;
  };

  enum class Kind { text, blob };

  static ContentClassification text(std::string text) { return {Text{std::move(text)}}; }
  static ContentClassification blob(Bytes data) { return {Blob{std::move(data)}}; }

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  template <class Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&value);
  }

  // Alternatives in the order of Kind.
  std::variant<Text, Blob> value;

  bool operator==(const ContentClassification&) const = default;
};

// Decides whether content is text or a blob, and names blobs by their hash.
// Pure; any thread; never throws except for allocation.
namespace ContentClassifier {

// The longest text body, in UTF-16 code units of the decoded text.
inline constexpr std::size_t maxTextLength = 1048576;

// Text only when the bytes do not start with a UTF-8 byte-order mark, hold
// no zero byte, are well-formed UTF-8 and decode to at most maxTextLength
// UTF-16 units; a blob (holding `data` unchanged) otherwise.
ContentClassification classify(Bytes data);

// SHA-256 of the bytes as 64 lower-case hexadecimal digits.
std::string blobHash(std::span<const std::uint8_t> data);

}  // namespace ContentClassifier
}  // namespace synckit
