// The answers to writes, moves and deletes.

#include "fuzz/sync_json_support.h"

using namespace synckit;
using namespace halvark::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view json = text(data, size);
  if (auto ref = decodeOrNothing<NodeRef>(json)) {
    checkRoundTrip(*ref);
    checkIdentifiable(ref->nodeId);
  }
  if (auto result = decodeOrNothing<WriteResult>(json)) {
    checkRoundTrip(*result);
    checkIdentifiable(result->node.nodeId);
  }
  if (auto result = decodeOrNothing<DeleteResult>(json)) checkRoundTrip(*result);
  return 0;
}
