#include "synckit/auth/pkce.h"

#include "synckit/base/crypto.h"

namespace synckit {

PKCE::PKCE(std::string verifier)
    : verifier_(std::move(verifier)), challenge_(challenge(verifier_)) {}

PKCE PKCE::generate() { return PKCE(base64URLEncode(secureRandomBytes(64))); }

std::string PKCE::challenge(std::string_view verifier) { return base64URLEncode(sha256(verifier)); }

}  // namespace synckit
