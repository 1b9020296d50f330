#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "synckit/base/bytes.h"

namespace synckit {

using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

// Value of the first header named `name` (compared case-insensitively).
std::optional<std::string> headerValue(const HTTPHeaders& headers, std::string_view name);

struct HTTPRequest {
  std::string method = "GET";
  std::string url;
  HTTPHeaders headers;
  Bytes body;
  std::chrono::milliseconds timeout{60000};

  std::optional<std::string> header(std::string_view name) const { return headerValue(headers, name); }
  bool operator==(const HTTPRequest&) const = default;
};

struct HTTPResponse {
  int status = 0;
  HTTPHeaders headers;
  Bytes body;

  std::optional<std::string> header(std::string_view name) const { return headerValue(headers, name); }
  bool operator==(const HTTPResponse&) const = default;
};

// Performs one HTTP exchange. Implementations must be safe to call from
// several threads at once. A failure below the HTTP layer throws
// TransportError; a stop requested on the calling thread's ambient stop token
// throws CancellationError. Any HTTP status, including 4xx and 5xx, is a
// normal response.
class HTTPTransport {
 public:
  virtual ~HTTPTransport() = default;
  virtual HTTPResponse send(const HTTPRequest& request) = 0;
};

}  // namespace synckit
