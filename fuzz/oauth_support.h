#pragma once

// OAuth answers have no encoders here, so their targets check what can be
// checked on the decode alone: a value or a DecodingError, nothing else.

#include <optional>

#include "fuzz/fuzz_check.h"
#include "synckit/auth/oauth_json.h"
#include "synckit/base/error.h"

namespace halvark::fuzz {

template <class Decode>
auto decodeOrNothing(Decode decode, const synckit::Bytes& body)
    -> std::optional<decltype(decode(body))> {
  try {
    return decode(body);
  } catch (const synckit::DecodingError&) {
    return std::nullopt;
  }
}

}  // namespace halvark::fuzz
