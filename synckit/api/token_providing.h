#pragma once

#include <string>

namespace synckit {

// Supplies the bearer token for each sync API request. Must be safe to call
// from any thread; may throw (for example when nobody is signed in).
class TokenProviding {
 public:
  virtual ~TokenProviding() = default;
  virtual std::string currentAccessToken() = 0;
};

// A fixed token, for tools and tests.
class StaticTokenProvider : public TokenProviding {
 public:
  explicit StaticTokenProvider(std::string token) : token_(std::move(token)) {}
  std::string currentAccessToken() override { return token_; }
  const std::string& token() const noexcept { return token_; }

 private:
  std::string token_;
};

}  // namespace synckit
