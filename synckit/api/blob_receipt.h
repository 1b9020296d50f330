#pragma once

#include <cstdint>
#include <string>

namespace synckit {

// The server's acknowledgement of an uploaded blob: its SHA-256 as 64
// lower-case hex digits and its size in bytes.
struct BlobReceipt {
  std::string hash;
  std::int64_t size = 0;

  bool operator==(const BlobReceipt&) const = default;
};

}  // namespace synckit
