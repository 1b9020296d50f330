// UUID text from the server, the store and item identifiers.

#include "fuzz/fuzz_check.h"
#include "synckit/base/uuid.h"

using synckit::Uuid;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text = halvark::fuzz::text(data, size);
  if (auto uuid = Uuid::parse(text)) {
    FUZZ_CHECK(text.size() == 36);
    FUZZ_CHECK(Uuid::parse(uuid->toString()) == uuid);
    FUZZ_CHECK(Uuid::parse(uuid->toLowerString()) == uuid);
  }
  if (size >= 16) {
    Uuid::Storage storage;
    std::copy(data, data + 16, storage.begin());
    Uuid uuid(storage);
    FUZZ_CHECK(Uuid::parse(uuid.toString()) == uuid);
  }
  return 0;
}
