#pragma once

#include <filesystem>
#include <optional>

#include "synckit/platform/token_persisting.h"

namespace synckit {

// Keeps the token pair in a file readable only by its owner (mode 0600),
// for desktops where no Secret Service answers. The same contract as
// KeychainTokenStore: a missing file is "nobody signed in", damaged content
// throws DecodingError and stays, other failures throw
// KeychainTokenStoreError with the errno as status. Writes are atomic and
// create missing folders 0700. Load refuses (ELOOP, EPERM) a symbolic link, a
// file of another user, and a file that group or others may access.
// Any thread; callers serialise their own use.
class FileTokenStore : public TokenPersisting {
 public:
  // Normally AppGroup::tokenFileURL().
  explicit FileTokenStore(std::filesystem::path file);

  std::optional<TokenSet> load() override;
  void save(const TokenSet& tokens) override;
  void clear() override;

  std::filesystem::path file;
};

}  // namespace synckit
