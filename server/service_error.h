#pragma once
// The two error shapes the service answers with. Thrown by the model and turned
// into HTTP answers by the route handlers.

#include <stdexcept>
#include <string>

namespace devserver {

// A sync API or control failure, answered as {"error":{"code","message"}}.
class ServiceError : public std::runtime_error {
 public:
  ServiceError(int status, std::string code, const std::string& message)
      : std::runtime_error(message), status_(status), code_(std::move(code)) {}

  int status() const { return status_; }
  const std::string& code() const { return code_; }

  static ServiceError badRequest(const std::string& message) {
    return {400, "BAD_REQUEST", message};
  }
  static ServiceError notFound(const std::string& message) { return {404, "NOT_FOUND", message}; }
  static ServiceError conflict(const std::string& message) { return {409, "CONFLICT", message}; }
  static ServiceError forbidden(const std::string& message) { return {403, "FORBIDDEN", message}; }
  static ServiceError forbiddenSubtree(const std::string& message) {
    return {403, "FORBIDDEN_SUBTREE", message};
  }
  static ServiceError unauthorized(const std::string& message) {
    return {401, "UNAUTHORIZED", message};
  }

 private:
  int status_;
  std::string code_;
};

// An OAuth failure, answered as {"error","error_description"}.
class OAuthFailure : public std::runtime_error {
 public:
  OAuthFailure(int status, std::string error, const std::string& description)
      : std::runtime_error(description), status_(status), error_(std::move(error)) {}

  int status() const { return status_; }
  const std::string& error() const { return error_; }

 private:
  int status_;
  std::string error_;
};

}  // namespace devserver
