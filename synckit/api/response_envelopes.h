#pragma once

#include <string>
#include <vector>

#include "synckit/api/brain.h"
#include "synckit/api/device.h"

namespace synckit {

// Top-level wrappers of the sync API's answers. Decode only; the client
// unwraps them, so only code that reads raw answers needs these.

struct BrainsEnvelope {
  std::vector<Brain> brains;
  bool operator==(const BrainsEnvelope&) const = default;
};

struct DevicesEnvelope {
  std::vector<Device> devices;
  bool operator==(const DevicesEnvelope&) const = default;
};

struct DeviceEnvelope {
  Device device;
  bool operator==(const DeviceEnvelope&) const = default;
};

// A text file read. `at` is the opaque version text the server echoes; it is
// not a date.
struct TextFileEnvelope {
  std::string path;
  std::string at;
  std::string content;
  bool operator==(const TextFileEnvelope&) const = default;
};

}  // namespace synckit
