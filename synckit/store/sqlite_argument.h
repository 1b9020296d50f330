#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace synckit {

// A value bound to a statement for one call without being copied: a text
// argument views the caller's characters, which must outlive the call (the
// statement lets go of them before the call returns). Binds exactly as the
// SQLiteValue of the same kind does, for the store's own writes, where
// copying every value into a SQLiteValue and again into SQLite cost as much
// as the insert.
class SQLiteArgument {
 public:
  enum class Kind { integer, text, null };

  static constexpr SQLiteArgument integer(std::int64_t value) noexcept {
    SQLiteArgument argument;
    argument.kind_ = Kind::integer;
    argument.integer_ = value;
    return argument;
  }
  static constexpr SQLiteArgument text(std::string_view value) noexcept {
    SQLiteArgument argument;
    argument.kind_ = Kind::text;
    argument.text_ = value;
    return argument;
  }
  static constexpr SQLiteArgument null() noexcept { return SQLiteArgument(); }
  static constexpr SQLiteArgument boolean(bool value) noexcept { return integer(value ? 1 : 0); }
  // Absent optionals bind as null.
  static constexpr SQLiteArgument optionalInteger(const std::optional<std::int64_t>& value) {
    return value ? integer(*value) : null();
  }
  static constexpr SQLiteArgument optionalText(const std::optional<std::string>& value) {
    return value ? text(*value) : null();
  }

  constexpr Kind kind() const noexcept { return kind_; }
  constexpr std::int64_t integerValue() const noexcept { return integer_; }
  constexpr std::string_view textValue() const noexcept { return text_; }

 private:
  constexpr SQLiteArgument() = default;

  Kind kind_ = Kind::null;
  std::int64_t integer_ = 0;
  std::string_view text_;
};

}  // namespace synckit
