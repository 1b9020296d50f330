#pragma once

// Shared by the fuzz targets: how they see their input and how they report a
// broken invariant. A broken invariant aborts, so that libFuzzer and the
// replay driver both keep the input that caused it.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "synckit/base/bytes.h"

namespace halvark::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline synckit::Bytes bytes(const std::uint8_t* data, std::size_t size) {
  return synckit::Bytes(data, data + size);
}

[[noreturn]] inline void violated(const char* what, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, what);
  std::abort();
}

}  // namespace halvark::fuzz

#define FUZZ_CHECK(condition) \
  ((condition) ? (void)0 : ::halvark::fuzz::violated(#condition, __FILE__, __LINE__))

// Declared once here so that every target has the same signature.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
