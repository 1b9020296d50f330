#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace synckit {

// A file-provider domain as the application registered it.
struct RegisteredDomain {
  std::string identifier;
  std::string displayName;

  bool operator==(const RegisteredDomain&) const = default;
};

// The list of registered domains, kept as a JSON array of
// {"identifier", "displayName"} objects in the container. The application
// writes it; the provider reads it to learn whether it is still wanted.
// Any thread; a reader sees the old or the new list, never a mix.
namespace DomainRegistry {

// The domains in `file`, in stored order; empty when the file does not
// exist. Throws DecodingError when it holds no such list, PosixError when it
// cannot be read.
std::vector<RegisteredDomain> load(const std::filesystem::path& file);

// Replaces `file` with `domains`, creating its directory when missing.
// Throws PosixError.
void save(const std::filesystem::path& file, const std::vector<RegisteredDomain>& domains);

}  // namespace DomainRegistry
}  // namespace synckit
