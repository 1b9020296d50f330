#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

#include "synckit/base/bytes.h"

namespace synckit {

// How new content of a file goes to the server, or that it cannot. A plain
// value; safe to copy between threads.
struct ContentUploadPlan {
  // Upload as a text body.
  struct Text {
    std::string text;
    bool operator==(const Text&) const = default;
  };
  // Upload as a blob with its hash (64 lower-case hex digits) and byte count.
  struct Blob {
    Bytes data;
    std::string sha256;
    std::int64_t size = 0;
    bool operator==(const Blob&) const = default;
  };
  // Refused: more than UploadPlanner::maxUploadBytes bytes.
  struct TooLarge {
    std::int64_t size = 0;
    bool operator==(const TooLarge&) const = default;
  };

  enum class Kind { text, blob, tooLarge };

  ContentUploadPlan(Text plan) : value(std::move(plan)) {}
  ContentUploadPlan(Blob plan) : value(std::move(plan)) {}
  ContentUploadPlan(TooLarge plan) : value(plan) {}

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  template <class Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&value);
  }

  // Alternatives in the order of Kind.
  std::variant<Text, Blob, TooLarge> value;

  bool operator==(const ContentUploadPlan&) const = default;
};

}  // namespace synckit
