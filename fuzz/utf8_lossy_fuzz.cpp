// Server text of unknown quality shown to the user: the lossy decoder always
// yields valid UTF-8, leaves valid UTF-8 alone and is idempotent.

#include <nlohmann/json.hpp>

#include "fuzz/fuzz_check.h"
#include "synckit/base/utf8_text.h"

namespace {

// Valid UTF-8 is exactly what a JSON encoder accepts in strict mode.
bool isValidUTF8(const std::string& text) {
  try {
    (void)nlohmann::json(text).dump();
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input(halvark::fuzz::text(data, size));
  std::string decoded = synckit::decodeUTF8Lossy(input);
  FUZZ_CHECK(isValidUTF8(decoded));
  FUZZ_CHECK(synckit::decodeUTF8Lossy(decoded) == decoded);
  if (isValidUTF8(input)) FUZZ_CHECK(decoded == input);
  FUZZ_CHECK(decoded.size() <= 3 * input.size());
  return 0;
}
