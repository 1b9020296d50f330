#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace synckit {

// A 16-byte identifier (brains, subscriptions). Prints as the canonical
// upper-case hyphenated text; parses upper or lower case.
class Uuid {
 public:
  using Storage = std::array<std::uint8_t, 16>;
  // The printed form in a fixed buffer, not NUL-terminated.
  using Text = std::array<char, 36>;

  constexpr Uuid() = default;
  constexpr explicit Uuid(const Storage& bytes) : bytes_(bytes) {}

  // A version 4 identifier from the cryptographically secure random source;
  // throws RandomSourceError when it fails.
  static Uuid random();
  // Only the 36-character hyphenated form (8-4-4-4-12 hexadecimal digits).
  static std::optional<Uuid> parse(std::string_view text);

  std::string toString() const;       // "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"
  std::string toLowerString() const;  // the same in lower case, for API paths
  // toString() without allocating, for callers that need the text briefly.
  Text toText() const noexcept;
  const Storage& bytes() const noexcept { return bytes_; }

  auto operator<=>(const Uuid&) const = default;
  bool operator==(const Uuid&) const = default;

 private:
  Storage bytes_{};
};

}  // namespace synckit

template <>
struct std::hash<synckit::Uuid> {
  std::size_t operator()(const synckit::Uuid& uuid) const noexcept;
};
