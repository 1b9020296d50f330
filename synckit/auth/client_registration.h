#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace synckit {

// The server's answer to a dynamic client registration.
struct ClientRegistration {
  std::string clientId;
  std::string clientName;
  std::vector<std::string> redirectUris;
  std::string tokenEndpointAuthMethod;
  std::vector<std::string> grantTypes;
  std::vector<std::string> responseTypes;
  std::optional<std::int64_t> clientIdIssuedAt;

  bool operator==(const ClientRegistration&) const = default;
};

}  // namespace synckit
