// The token file's content: it decodes to a token pair or fails with a
// DecodingError, and a decoded pair is stored as bytes that decode to it.

#include "fuzz/fuzz_check.h"
#include "synckit/base/error.h"
#include "synckit/platform/token_set.h"

using namespace synckit;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  TokenSet tokens;
  try {
    tokens = decodeTokenSet(std::span(data, size));
  } catch (const DecodingError&) {
    return 0;
  }
  Bytes stored = encodeTokenSet(tokens);
  FUZZ_CHECK(decodeTokenSet(stored) == tokens);
  return 0;
}
