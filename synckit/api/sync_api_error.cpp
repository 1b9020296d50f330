#include "synckit/api/sync_api_error.h"

namespace synckit {

SyncAPIError::SyncAPIError(int status, std::string code, std::string message)
    : Error("Sync API error " + std::to_string(status) + " " + code + ": " + message),
      status_(status),
      code_(std::move(code)),
      message_(std::move(message)) {}

SyncClientError::SyncClientError(Kind kind, std::optional<std::string> payload, std::string description)
    : Error(std::move(description)), kind_(kind), payload_(std::move(payload)) {}

SyncClientError SyncClientError::invalidURL(std::string url) {
  std::string description = "Could not build a request URL: " + url;
  return SyncClientError(Kind::invalidURL, std::move(url), std::move(description));
}

SyncClientError SyncClientError::unexpectedContentType(std::optional<std::string> contentType) {
  std::string description = "Unexpected response Content-Type: " + contentType.value_or("none");
  return SyncClientError(Kind::unexpectedContentType, std::move(contentType), std::move(description));
}

SyncClientError SyncClientError::nonHTTPResponse() {
  return SyncClientError(Kind::nonHTTPResponse, std::nullopt, "The response was not an HTTP response.");
}

}  // namespace synckit
