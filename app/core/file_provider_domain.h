#pragma once

#include <string>

namespace halvark {

// A file-provider domain: one root the system shows in the file manager. The
// application registers exactly one.
struct FileProviderDomain {
  std::string identifier;
  std::string displayName;

  bool operator==(const FileProviderDomain&) const = default;
};

}  // namespace halvark
