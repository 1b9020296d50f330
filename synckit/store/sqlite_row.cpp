#include "synckit/store/sqlite_row.h"

namespace synckit {

std::int64_t SQLiteRow::integer(std::size_t index) const {
  return optionalInteger(index).value_or(0);
}

std::optional<std::int64_t> SQLiteRow::optionalInteger(std::size_t index) const {
  if (auto* v = std::get_if<SQLiteValue::Integer>(&values.at(index).value)) return v->value;
  return std::nullopt;
}

std::string SQLiteRow::string(std::size_t index) const {
  return optionalString(index).value_or(std::string());
}

std::optional<std::string> SQLiteRow::optionalString(std::size_t index) const {
  if (auto* v = std::get_if<SQLiteValue::Text>(&values.at(index).value)) return v->value;
  return std::nullopt;
}

std::optional<Bytes> SQLiteRow::data(std::size_t index) const {
  if (auto* v = std::get_if<SQLiteValue::Blob>(&values.at(index).value)) return v->value;
  return std::nullopt;
}

bool SQLiteRow::isNull(std::size_t index) const {
  return values.at(index).kind() == SQLiteValue::Kind::null;
}

}  // namespace synckit
