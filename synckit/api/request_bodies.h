#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace synckit {

// JSON bodies the client sends. Encode only; members are written in sorted
// key order and an absent title is left out.

struct RegisterDeviceBody {
  std::string name;
  std::string platform;
  bool operator==(const RegisterDeviceBody&) const = default;
};

struct PutTextBody {
  std::string deviceId;
  std::string path;
  std::optional<std::string> title;
  std::string body;  // the full text content
  bool operator==(const PutTextBody&) const = default;
};

struct PutBlobBody {
  std::string deviceId;
  std::string path;
  std::optional<std::string> title;
  std::string blobHash;
  std::int64_t blobSize = 0;
  bool operator==(const PutBlobBody&) const = default;
};

struct MoveBody {
  std::string deviceId;
  std::string fromPath;
  std::string toPath;
  bool operator==(const MoveBody&) const = default;
};

struct DeleteBody {
  std::string deviceId;
  std::string path;
  bool operator==(const DeleteBody&) const = default;
};

}  // namespace synckit
