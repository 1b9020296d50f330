#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "synckit/base/error.h"

namespace synckit {

// Every failure of the SQLite layer: the SQLite result code, the library's
// message and, unless opening failed, the statement that failed.
class SQLiteError : public Error {
 public:
  SQLiteError(std::int32_t code, std::string message, std::optional<std::string> sql);

  std::int32_t code() const noexcept { return code_; }
  const std::string& message() const noexcept { return message_; }
  const std::optional<std::string>& sql() const noexcept { return sql_; }

  bool operator==(const SQLiteError& other) const {
    return code_ == other.code_ && message_ == other.message_ && sql_ == other.sql_;
  }

 private:
  std::int32_t code_;
  std::string message_;
  std::optional<std::string> sql_;
};

}  // namespace synckit
