#pragma once

#include <optional>
#include <string>
#include <variant>

namespace halvark {

// The user's session as the interface shows it.
struct Session {
  struct SignedIn {
    std::string memberLabel;
    bool operator==(const SignedIn&) const = default;
  };
  struct SignedOut {
    bool operator==(const SignedOut&) const = default;
  };
  struct SigningIn {
    bool operator==(const SigningIn&) const = default;
  };

  // Cases in the order of the alternatives.
  enum class Kind { signedIn, signedOut, signingIn };

  static Session signedIn(std::string memberLabel) { return {SignedIn{std::move(memberLabel)}}; }
  static Session signedOut() { return {SignedOut{}}; }
  static Session signingIn() { return {SigningIn{}}; }

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  // The label of a signed-in session; absent in the other cases.
  std::optional<std::string> memberLabel() const;

  std::variant<SignedIn, SignedOut, SigningIn> value{SignedOut{}};

  bool operator==(const Session&) const = default;
};

// "signedIn", "signedOut", "signingIn": the texts of the control socket and
// of `halvark status --json`.
std::string_view toString(Session::Kind kind);

}  // namespace halvark
