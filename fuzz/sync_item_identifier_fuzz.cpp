// Item identifiers read back from the change log and handed in by the
// provider: whatever parses prints as text that parses to the same value,
// and the JSON coding agrees with the text form.

#include <nlohmann/json.hpp>

#include "fuzz/fuzz_check.h"
#include "synckit/base/error.h"
#include "synckit/store/sync_item_identifier.h"

using synckit::SyncItemIdentifier;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text = halvark::fuzz::text(data, size);
  auto identifier = SyncItemIdentifier::parse(text);
  if (identifier) {
    std::string printed = identifier->string();
    FUZZ_CHECK(SyncItemIdentifier::parse(printed) == identifier);
    FUZZ_CHECK(std::hash<SyncItemIdentifier>{}(*SyncItemIdentifier::parse(printed)) ==
               std::hash<SyncItemIdentifier>{}(*identifier));
    FUZZ_CHECK(identifier->brainId().has_value() ==
               (identifier->kind() != SyncItemIdentifier::Kind::root));
  }
  // The JSON string coding refuses exactly what the text parser refuses.
  try {
    auto decoded = nlohmann::json(std::string(text)).get<SyncItemIdentifier>();
    FUZZ_CHECK(identifier == decoded);
  } catch (const synckit::DecodingError&) {
    FUZZ_CHECK(!identifier);
  }
  return 0;
}
