#include "synckit/auth/oauth_error.h"

#include "synckit/base/utf8_text.h"
#include "synckit/auth/oauth_json.h"

namespace synckit {
namespace {

std::string describe(int status, const std::string& error,
                     const std::optional<std::string>& detail) {
  std::string text = "OAuth error " + std::to_string(status) + " " + error;
  if (detail) text += ": " + *detail;
  return text;
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
    // Error pages come from proxies as often as from the server, in any
    // encoding; showing them beats hiding them.
    std::string text =
        decodeUTF8Lossy(std::string_view(reinterpret_cast<const char*>(body.data()), body.size()));
    std::optional<std::string> detail;
    if (!text.empty()) detail = std::move(text);
    return OAuthError(status, "unknown", std::move(detail));
  }
}

}  // namespace synckit
