#include "synckit/api/json_reader.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace synckit {
namespace {

std::string_view typeName(const nlohmann::json& value) {
  switch (value.type()) {
    case nlohmann::json::value_t::null:
      return "null";
    case nlohmann::json::value_t::object:
      return "an object";
    case nlohmann::json::value_t::array:
      return "an array";
    case nlohmann::json::value_t::string:
      return "a string";
    case nlohmann::json::value_t::boolean:
      return "a boolean";
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned:
    case nlohmann::json::value_t::number_float:
      return "a number";
    default:
      return "an unsupported value";
  }
}

}  // namespace

std::string JSONReader::codingPath() const {
  if (parent_ == nullptr) return {};
  std::string path = parent_->codingPath();
  if (key_.empty()) {
    path += "[" + std::to_string(index_) + "]";
  } else {
    if (!path.empty()) path.push_back('.');
    path += key_;
  }
  return path;
}

void JSONReader::fail(DecodingError::Kind kind, std::string description) const {
  throw DecodingError(kind, std::move(description));
}

void JSONReader::failType(std::string_view expected) const {
  std::string path = codingPath();
  std::string where = path.empty() ? "at the top level" : "for \"" + path + "\"";
  auto kind =
      value_->is_null() ? DecodingError::Kind::valueNotFound : DecodingError::Kind::typeMismatch;
  fail(kind, "Expected " + std::string(expected) + " " + where + " but found " +
                 std::string(typeName(*value_)) + ".");
}

JSONReader JSONReader::member(std::string_view key) const {
  if (!value_->is_object()) failType("an object");
  auto it = value_->find(key);
  if (it == value_->end()) {
    std::string path = codingPath();
    fail(DecodingError::Kind::keyNotFound, "Missing required key \"" + std::string(key) + "\"" +
                                               (path.empty() ? "" : " in \"" + path + "\"") + ".");
  }
  return JSONReader(*it, this, key, 0);
}

std::optional<JSONReader> JSONReader::optionalMember(std::string_view key) const {
  if (!value_->is_object()) failType("an object");
  auto it = value_->find(key);
  if (it == value_->end() || it->is_null()) return std::nullopt;
  return JSONReader(*it, this, key, 0);
}

std::string JSONReader::string() const {
  if (!value_->is_string()) failType("a string");
  return value_->get_ref<const std::string&>();
}

bool JSONReader::boolean() const {
  if (!value_->is_boolean()) failType("a boolean");
  return value_->get<bool>();
}

std::int64_t JSONReader::integer() const {
  if (value_->is_number_integer() && !value_->is_number_unsigned())
    return value_->get<std::int64_t>();
  if (value_->is_number_unsigned()) {
    auto value = value_->get<std::uint64_t>();
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return static_cast<std::int64_t>(value);
    }
  } else if (value_->is_number_float()) {
    // A server may write a whole number as 12.0; a fraction or an
    // out-of-range value is refused.
    double value = value_->get<double>();
    if (std::trunc(value) == value && value >= -9.2233720368547758e18 &&
        value < 9.2233720368547758e18) {
      return static_cast<std::int64_t>(value);
    }
  } else {
    failType("an integer");
  }
  fail(DecodingError::Kind::dataCorrupted, "The number " + value_->dump() + " for \"" +
                                               codingPath() + "\" does not fit a 64-bit integer.");
}

Timestamp JSONReader::date() const {
  const std::string text = string();
  auto date = Timestamp::parse(text);
  if (!date) fail(DecodingError::Kind::dataCorrupted, "Invalid ISO 8601 date: " + text);
  return *date;
}

std::vector<std::string> JSONReader::stringArray() const {
  return array([](const JSONReader& element) { return element.string(); });
}

std::size_t JSONReader::arraySize() const {
  if (!value_->is_array()) failType("an array");
  return value_->size();
}

JSONReader JSONReader::element(std::size_t index) const {
  return JSONReader((*value_)[index], this, {}, index);
}

}  // namespace synckit
