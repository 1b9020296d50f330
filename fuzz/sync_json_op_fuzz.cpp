// One change-feed operation and an entry's author.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view json = text(data, size);
  if (auto op = decodeOrNothing<Op>(json)) checkRoundTrip(*op);
  if (auto author = decodeOrNothing<Author>(json)) checkRoundTrip(*author);
  return 0;
}
