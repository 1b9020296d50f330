#include "synckit/store/sqlite_error.h"

namespace synckit {
namespace {

std::string describe(std::int32_t code, const std::string& message,
                     const std::optional<std::string>& sql) {
  std::string text = "SQLite error " + std::to_string(code) + ": " + message;
  if (sql) text += " [" + *sql + "]";
  return text;
}

}  // namespace

SQLiteError::SQLiteError(std::int32_t code, std::string message, std::optional<std::string> sql)
    : Error(describe(code, message, sql)),
      code_(code),
      message_(std::move(message)),
      sql_(std::move(sql)) {}

}  // namespace synckit
