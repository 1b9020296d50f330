// Device registration and the device list answers.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view json = text(data, size);
  if (auto device = decodeOrNothing<Device>(json)) checkRoundTrip(*device);
  if (auto envelope = decodeOrNothing<DeviceEnvelope>(json)) checkRoundTrip(envelope->device);
  if (auto envelope = decodeOrNothing<DevicesEnvelope>(json)) {
    for (const Device& device : envelope->devices) checkRoundTrip(device);
  }
  return 0;
}
