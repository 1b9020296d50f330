#include "synckit/auth/oauth_error.h"

#include "synckit/auth/oauth_json.h"

namespace synckit {
namespace {

std::string describe(int status, const std::string& error,
                     const std::optional<std::string>& detail) {
  std::string text = "OAuth error " + std::to_string(status) + " " + error;
  if (detail) text += ": " + *detail;
  return text;
}

// Error pages come from proxies as often as from the server itself, in any
// encoding; each ill-formed sequence becomes one U+FFFD so the text can
// still be shown.
std::string decodeUTF8Lossy(const Bytes& bytes) {
  static constexpr std::string_view replacement = "\xEF\xBF\xBD";
  std::string out;
  out.reserve(bytes.size());
  std::size_t i = 0;
  while (i < bytes.size()) {
    std::uint8_t lead = bytes[i];
    if (lead < 0x80) {
      out.push_back(static_cast<char>(lead));
      ++i;
      continue;
    }
    std::size_t length = 0;
    std::uint8_t low = 0x80, high = 0xBF;  // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead == 0xE0) {
      length = 3, low = 0xA0;
    } else if (lead == 0xED) {
      length = 3, high = 0x9F;  // no surrogates
    } else if (lead >= 0xE1 && lead <= 0xEF) {
      length = 3;
    } else if (lead == 0xF0) {
      length = 4, low = 0x90;
    } else if (lead >= 0xF1 && lead <= 0xF3) {
      length = 4;
    } else if (lead == 0xF4) {
      length = 4, high = 0x8F;  // nothing above U+10FFFF
    }
    std::size_t valid = 1;
    while (length != 0 && valid < length && i + valid < bytes.size()) {
      std::uint8_t next = bytes[i + valid];
      std::uint8_t lo = valid == 1 ? low : 0x80, hi = valid == 1 ? high : 0xBF;
      if (next < lo || next > hi) break;
      ++valid;
    }
    if (length != 0 && valid == length) {
      out.append(reinterpret_cast<const char*>(&bytes[i]), length);
    } else {
      out += replacement;
    }
    i += valid;
  }
  return out;
}

}  // namespace

OAuthError::OAuthError(int status, std::string error, std::optional<std::string> errorDescription)
    : Error(describe(status, error, errorDescription)),
      status_(status),
      error_(std::move(error)),
      errorDescription_(std::move(errorDescription)) {}

OAuthError OAuthError::fromResponse(int status, const Bytes& body) {
  try {
    Body decoded = OAuthJSON::decodeErrorBody(body);
    return OAuthError(status, std::move(decoded.error), std::move(decoded.errorDescription));
  } catch (const DecodingError&) {
    std::string text = decodeUTF8Lossy(body);
    std::optional<std::string> detail;
    if (!text.empty()) detail = std::move(text);
    return OAuthError(status, "unknown", std::move(detail));
  }
}

}  // namespace synckit
