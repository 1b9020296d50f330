#pragma once

#include <string>
#include <vector>

namespace synckit {

// What a public client sends to register itself; deliberately nothing more
// (no grant types, response types or scope), so the server's defaults apply.
struct RegistrationBody {
  std::string clientName;
  std::vector<std::string> redirectUris;
  std::string tokenEndpointAuthMethod;

  bool operator==(const RegistrationBody&) const = default;
};

}  // namespace synckit
