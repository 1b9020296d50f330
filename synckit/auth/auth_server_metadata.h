#pragma once

#include <string>
#include <vector>

namespace synckit {

// The authorization server's discovery document. The four endpoints are
// required; the capability lists are empty when the server leaves them out.
struct AuthServerMetadata {
  std::string issuer;
  std::string authorizationEndpoint;
  std::string tokenEndpoint;
  std::string registrationEndpoint;
  std::vector<std::string> responseTypesSupported;
  std::vector<std::string> grantTypesSupported;
  std::vector<std::string> codeChallengeMethodsSupported;
  std::vector<std::string> tokenEndpointAuthMethodsSupported;
  std::vector<std::string> scopesSupported;

  bool operator==(const AuthServerMetadata&) const = default;
};

}  // namespace synckit
