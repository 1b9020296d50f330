#pragma once

#include <string>
#include <string_view>

namespace synckit {

// A PKCE verifier and its S256 challenge for one authorization request.
// Immutable value; safe to use from any thread.
class PKCE {
 public:
  // A pair for a given verifier.
  explicit PKCE(std::string verifier);

  // A fresh pair from 64 bytes of the secure random source (an 86-character
  // verifier). Throws RandomSourceError when the source fails.
  static PKCE generate();

  // base64url (no padding) of the SHA-256 of the verifier's UTF-8 bytes.
  static std::string challenge(std::string_view verifier);

  const std::string& verifier() const noexcept { return verifier_; }
  const std::string& challenge() const noexcept { return challenge_; }
  const std::string& method() const noexcept { return method_; }

  bool operator==(const PKCE&) const = default;

 private:
  std::string verifier_;
  std::string challenge_;
  std::string method_ = "S256";
};

}  // namespace synckit
