#include "synckit/platform/token_store_factory.h"

#include "synckit/base/logger.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/file_token_store.h"

namespace synckit {

std::unique_ptr<TokenPersisting> makeTokenStore(KeychainTokenStore keychain,
                                                std::optional<std::filesystem::path> fallbackFile) {
  if (KeychainTokenStore::isAvailable())
    return std::make_unique<KeychainTokenStore>(std::move(keychain));
  std::filesystem::path file = fallbackFile ? std::move(*fallbackFile) : AppGroup::tokenFileURL();
  Logger(std::string(AppIdentity::applicationIdentifier), "keychain")
      .error("No Secret Service answered; keeping the sign-in tokens in %s (readable only by you)",
             file.c_str());
  return std::make_unique<FileTokenStore>(std::move(file));
}

}  // namespace synckit
