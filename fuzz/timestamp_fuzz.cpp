// Timestamp text from the server and the store: what parses prints as text
// that parses to the same instant, and every instant prints as such text.

#include <cstring>

#include "fuzz/fuzz_check.h"
#include "synckit/base/timestamp.h"

using synckit::Timestamp;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (auto parsed = Timestamp::parse(halvark::fuzz::text(data, size))) {
    std::string printed = parsed->toString();
    FUZZ_CHECK(Timestamp::parse(printed) == parsed);
    FUZZ_CHECK(printed.size() == 24);
  }
  if (size >= 8) {
    std::int64_t milliseconds;
    std::memcpy(&milliseconds, data, sizeof milliseconds);
    auto timestamp = Timestamp::fromMilliseconds(milliseconds);
    FUZZ_CHECK(Timestamp::parse(timestamp.toString()) == timestamp);
  }
  return 0;
}
