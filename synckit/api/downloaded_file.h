#pragma once

#include <string>
#include <utility>
#include <variant>

#include "synckit/base/bytes.h"

namespace synckit {

// The content of a file read from the server: text for text nodes, the raw
// bytes for blobs.
struct DownloadedFile {
  struct Text {
    std::string content;
    bool operator==(const Text&) const = default;
  };
  struct Blob {
    Bytes data;
    bool operator==(const Blob&) const = default;
  };

  enum class Kind { text, blob };

  static DownloadedFile text(std::string content) { return DownloadedFile{Text{std::move(content)}}; }
  static DownloadedFile blob(Bytes data) { return DownloadedFile{Blob{std::move(data)}}; }

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  template <class Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&value);
  }

  std::variant<Text, Blob> value;

  bool operator==(const DownloadedFile&) const = default;
};

}  // namespace synckit
