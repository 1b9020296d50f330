#pragma once

#include <optional>

#include "synckit/platform/token_set.h"

namespace synckit {

// Where the token pair of the signed-in user is kept. The token manager is
// the only caller and serialises its own use.
class TokenPersisting {
 public:
  virtual ~TokenPersisting() = default;

  // The stored pair; absent when nobody is signed in.
  virtual std::optional<TokenSet> load() = 0;
  // Replaces the stored pair (one item, never two).
  virtual void save(const TokenSet& tokens) = 0;
  // Removes the stored pair; removing a missing pair succeeds.
  virtual void clear() = 0;
};

}  // namespace synckit
