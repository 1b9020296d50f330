#pragma once

#include <optional>
#include <string>

#include "synckit/base/bytes.h"
#include "synckit/base/error.h"

namespace synckit {

// Every answer outside 200-299 from discovery, registration or the token
// endpoint. `error` is the server's OAuth error code, or "unknown" when the
// body was not an OAuth error object.
class OAuthError : public Error {
 public:
  // The wire form of an OAuth error answer.
  struct Body {
    std::string error;
    std::optional<std::string> errorDescription;

    bool operator==(const Body&) const = default;
  };

  OAuthError(int status, std::string error, std::optional<std::string> errorDescription);

  // The error for a non-2xx answer: the OAuth error object when the body is
  // one, else "unknown" with the body text (if any) as its description.
  static OAuthError fromResponse(int status, const Bytes& body);

  int status() const noexcept { return status_; }
  const std::string& error() const noexcept { return error_; }
  const std::optional<std::string>& errorDescription() const noexcept { return errorDescription_; }

  bool isInvalidGrant() const { return error_ == "invalid_grant"; }
  bool isInvalidClient() const { return error_ == "invalid_client"; }

  bool operator==(const OAuthError& other) const {
    return status_ == other.status_ && error_ == other.error_ &&
           errorDescription_ == other.errorDescription_;
  }

 private:
  int status_;
  std::string error_;
  std::optional<std::string> errorDescription_;
};

}  // namespace synckit
