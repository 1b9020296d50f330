#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "synckit/platform/keychain_token_store.h"
#include "synckit/platform/token_persisting.h"

namespace synckit {

// The token store for this desktop: `keychain` when a Secret Service
// answers, else a FileTokenStore at `fallbackFile` (AppGroup::tokenFileURL()
// when not given), announced by one line in the log. Throws
// MetadataStoreError::containerUnavailable when the fallback is needed and
// no container can be derived. Call once at start-up, from any thread.
std::unique_ptr<TokenPersisting> makeTokenStore(
    KeychainTokenStore keychain = KeychainTokenStore(),
    std::optional<std::filesystem::path> fallbackFile = std::nullopt);

}  // namespace synckit
