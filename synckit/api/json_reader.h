#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "synckit/base/error.h"
#include "synckit/base/timestamp.h"

namespace synckit {

// A read position inside a parsed JSON document, used by the wire-model
// decoders. It remembers how it was reached (member keys and array indices)
// only as a chain of parent pointers, so the coding path costs nothing until
// an error message needs it. Every failure is a DecodingError.
//
// A reader borrows its document and its parent: use it only within the scope
// of the reader it came from. Single-threaded, like the decode that uses it.
class JSONReader {
 public:
  explicit JSONReader(const nlohmann::json& value) : value_(&value) {}

  // A required member: absent → keyNotFound; not an object → typeMismatch.
  JSONReader member(std::string_view key) const;
  // An optional member: absent or null → no value.
  std::optional<JSONReader> optionalMember(std::string_view key) const;

  // Scalars: null → valueNotFound, another JSON type → typeMismatch.
  std::string string() const;
  bool boolean() const;
  std::int64_t integer() const;
  // The wire's date text; anything else → dataCorrupted "Invalid ISO 8601 date: {text}".
  Timestamp date() const;
  std::vector<std::string> stringArray() const;

  // Decodes every element of an array with `decodeElement(JSONReader)`.
  template <class F>
  auto array(F&& decodeElement) const
      -> std::vector<decltype(decodeElement(std::declval<JSONReader>()))> {
    std::vector<decltype(decodeElement(std::declval<JSONReader>()))> out;
    std::size_t count = arraySize();
    out.reserve(count);
    for (std::size_t i = 0; i < count; ++i) out.push_back(decodeElement(element(i)));
    return out;
  }

  // The reader's position as "entries[2].ops[0].kind"; empty at the top.
  std::string codingPath() const;

  [[noreturn]] void fail(DecodingError::Kind kind, std::string description) const;

 private:
  JSONReader(const nlohmann::json& value, const JSONReader* parent, std::string_view key,
             std::size_t index)
      : value_(&value), parent_(parent), key_(key), index_(index) {}

  std::size_t arraySize() const;
  JSONReader element(std::size_t index) const;
  [[noreturn]] void failType(std::string_view expected) const;

  const nlohmann::json* value_;
  const JSONReader* parent_ = nullptr;
  std::string_view key_;  // empty for an array element or the top level
  std::size_t index_ = 0;
};

// Parses `text` and hands its top level to `read`. Every failure, the
// parser's included, comes out as a DecodingError.
template <class F>
auto readJSONDocument(std::string_view text, F&& read)
    -> decltype(read(std::declval<const JSONReader&>())) {
  nlohmann::json document;
  try {
    document = nlohmann::json::parse(text.begin(), text.end());
  } catch (const nlohmann::json::parse_error& error) {
    throw DecodingError(DecodingError::Kind::dataCorrupted,
                        "The data is not valid JSON (at byte " + std::to_string(error.byte) + ").");
  } catch (const nlohmann::json::exception&) {
    // The parser reports a number too large for a double as out of range
    // rather than as a syntax error, wherever it stands in the document.
    throw DecodingError(DecodingError::Kind::dataCorrupted,
                        "The data is not valid JSON (a number is out of range).");
  }
  try {
    return read(JSONReader(document));
  } catch (const nlohmann::json::exception&) {
    // The reader checks every type before it converts, so this is only a
    // safety net that keeps the parser's exceptions out of callers' hands.
    throw DecodingError(DecodingError::Kind::dataCorrupted, "The JSON data could not be read.");
  }
}

}  // namespace synckit
