#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "synckit/base/bytes.h"

namespace synckit {

// A value bound to, or read from, a statement. There is deliberately no
// floating-point case: nothing in the store is stored as REAL, and a REAL that
// turns up anyway reads as null. Booleans travel as integer 0 or 1.
struct SQLiteValue {
  enum class Kind { integer, text, blob, null };

  struct Integer {
    std::int64_t value = 0;
    bool operator==(const Integer&) const = default;
  };
  struct Text {
    std::string value;
    bool operator==(const Text&) const = default;
  };
  struct Blob {
    Bytes value;
    bool operator==(const Blob&) const = default;
  };
  struct Null {
    bool operator==(const Null&) const = default;
  };

  // Alternatives in the order of Kind.
  std::variant<Integer, Text, Blob, Null> value{Null{}};

  static SQLiteValue integer(std::int64_t v) { return {Integer{v}}; }
  static SQLiteValue text(std::string v) { return {Text{std::move(v)}}; }
  static SQLiteValue blob(Bytes v) { return {Blob{std::move(v)}}; }
  static SQLiteValue null() { return {}; }
  static SQLiteValue boolean(bool v) { return integer(v ? 1 : 0); }
  // Absent optionals bind as null.
  static SQLiteValue optionalInteger(const std::optional<std::int64_t>& v) {
    return v ? integer(*v) : null();
  }
  static SQLiteValue optionalText(const std::optional<std::string>& v) {
    return v ? text(*v) : null();
  }

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }

  bool operator==(const SQLiteValue&) const = default;
};

}  // namespace synckit
