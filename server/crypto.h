#pragma once
// The few cryptographic helpers the service needs: SHA-256 for blob hashes and
// PKCE, and unguessable identifiers and tokens. Callable from any thread.

#include <string>
#include <string_view>

namespace devserver {

// SHA-256 of the bytes as 64 lower-case hexadecimal digits.
std::string sha256Hex(std::string_view bytes);

// SHA-256 of the bytes in base64url without padding (the PKCE S256 challenge form).
std::string sha256Base64Url(std::string_view bytes);

// `byteCount` random bytes from the OS generator, as base64url without padding.
std::string randomToken(std::size_t byteCount = 32);

// `byteCount` random bytes as lower-case hexadecimal.
std::string randomHex(std::size_t byteCount);

// A random (version 4) UUID in lower-case canonical text.
std::string randomUuid();

}  // namespace devserver
