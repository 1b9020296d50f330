#pragma once

#include <ostream>

#include "provider/local_change.h"

namespace halvark::provider {

// Readable test failures for changes: "moved a/b from a/c (folder)".
inline void PrintTo(const LocalChange& change, std::ostream* out) {
  static constexpr const char* kinds[] = {"written", "madeFolder", "moved", "removed"};
  *out << kinds[static_cast<int>(change.kind)] << ' ' << change.path;
  if (change.fromPath) *out << " from " << *change.fromPath;
  if (change.isDirectory) *out << " (folder)";
}

}  // namespace halvark::provider
