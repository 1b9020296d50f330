#pragma once
// Base64 in its standard and URL-safe alphabets.

#include <optional>
#include <string>
#include <string_view>

namespace devserver {

// Standard alphabet with "=" padding, or with `urlSafe` the "-_" alphabet
// without padding (the form of tokens and PKCE challenges).
std::string base64Encode(std::string_view bytes, bool urlSafe = false);

// Accepts either alphabet, with or without padding; nothing on invalid input.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace devserver
