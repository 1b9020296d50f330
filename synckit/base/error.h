#pragma once

#include <exception>
#include <string>

namespace synckit {

// Base of every failure the library throws. description() is the fixed
// user-facing text; what() returns the same text.
class Error : public std::exception {
 public:
  explicit Error(std::string description) : description_(std::move(description)) {}

  const std::string& description() const noexcept { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  std::string description_;
};

// A local file that should hold content does not exist.
class FileNotFoundError : public Error {
 public:
  explicit FileNotFoundError(std::string path);
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

// The operation stopped because its thread's stop was requested.
class CancellationError : public Error {
 public:
  CancellationError() : Error("The operation was cancelled.") {}
};

// An HTTP exchange failed below the HTTP layer: refused, reset, timed out, TLS.
class TransportError : public Error {
 public:
  enum class Kind { cannotConnect, timedOut, connectionLost, secureConnectionFailed, other };

  TransportError(Kind kind, std::string detail);
  Kind kind() const noexcept { return kind_; }
  const std::string& detail() const noexcept { return detail_; }

 private:
  Kind kind_;
  std::string detail_;
};

// A value read from JSON or from a stored text form did not have the expected
// shape. The description names what was wrong.
class DecodingError : public Error {
 public:
  enum class Kind { dataCorrupted, keyNotFound, typeMismatch, valueNotFound };

  DecodingError(Kind kind, std::string description) : Error(std::move(description)), kind_(kind) {}
  Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

// A POSIX call failed; code is the errno value.
class PosixError : public Error {
 public:
  explicit PosixError(int code);
  int code() const noexcept { return code_; }

 private:
  int code_;
};

}  // namespace synckit
