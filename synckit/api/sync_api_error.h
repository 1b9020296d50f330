#pragma once

#include <optional>
#include <string>

#include "synckit/base/error.h"

namespace synckit {

// Every answer of the sync API outside 200-299. `code` is the machine code of
// the error envelope ("unknown" when the body had none).
class SyncAPIError : public Error {
 public:
  // The body of a failed answer: {"error": {"code": ..., "message": ...}}.
  struct Envelope {
    struct Body {
      std::string code;
      std::string message;
      bool operator==(const Body&) const = default;
    };
    Body error;
    bool operator==(const Envelope&) const = default;
  };

  SyncAPIError(int status, std::string code, std::string message);

  int status() const noexcept { return status_; }
  const std::string& code() const noexcept { return code_; }
  const std::string& message() const noexcept { return message_; }

  bool isConflict() const { return code_ == "CONFLICT"; }
  bool isNotFound() const { return code_ == "NOT_FOUND"; }
  bool isForbidden() const { return code_ == "FORBIDDEN"; }
  bool isForbiddenSubtree() const { return code_ == "FORBIDDEN_SUBTREE"; }

  bool operator==(const SyncAPIError& other) const {
    return status_ == other.status_ && code_ == other.code_ && message_ == other.message_;
  }

 private:
  int status_;
  std::string code_;
  std::string message_;
};

// Failures found on the client side before or after an exchange.
class SyncClientError : public Error {
 public:
  enum class Kind { invalidURL, unexpectedContentType, nonHTTPResponse };

  static SyncClientError invalidURL(std::string url);
  static SyncClientError unexpectedContentType(std::optional<std::string> contentType);
  static SyncClientError nonHTTPResponse();

  Kind kind() const noexcept { return kind_; }
  // The URL text for invalidURL, the header for unexpectedContentType.
  const std::optional<std::string>& payload() const noexcept { return payload_; }

  bool operator==(const SyncClientError& other) const {
    return kind_ == other.kind_ && payload_ == other.payload_;
  }

 private:
  SyncClientError(Kind kind, std::optional<std::string> payload, std::string description);

  Kind kind_;
  std::optional<std::string> payload_;
};

}  // namespace synckit
