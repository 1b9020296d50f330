#pragma once

// The invariants every sync-API decoder target checks: a decode either gives
// a value or throws DecodingError, and a decoded record encodes to JSON that
// decodes to an equal record.

#include <optional>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "synckit/api/sync_json.h"
#include "synckit/base/error.h"
#include "synckit/store/sync_item_identifier.h"

namespace halvark::fuzz {

template <class T>
std::optional<T> decodeOrNothing(std::string_view json) {
  try {
    return synckit::SyncJSON::decode<T>(json);
  } catch (const synckit::DecodingError&) {
    return std::nullopt;
  }
}

template <class T>
void checkRoundTrip(const T& value) {
  FUZZ_CHECK(synckit::SyncJSON::decode<T>(synckit::SyncJSON::encode(value)) == value);
}

// A node id from the server becomes part of an item identifier, which must
// read back as the same item.
inline void checkIdentifiable(const std::string& nodeId) {
  auto identifier = synckit::SyncItemIdentifier::node(synckit::Uuid{}, nodeId);
  FUZZ_CHECK(synckit::SyncItemIdentifier::parse(identifier.string()) == identifier);
}

}  // namespace halvark::fuzz
