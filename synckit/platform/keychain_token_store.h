#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "synckit/platform/token_persisting.h"

namespace synckit {

// Keeps the token pair as one item in the desktop's Secret Service (the
// login keyring), shared by the application and the file provider through
// the access group attribute. The item holds the pair's JSON form. Failures
// of the Secret Service throw KeychainTokenStoreError; damaged item data
// throws DecodingError and the item is left in place.
//
// Has no lock of its own: the Secret Service serialises item access and the
// token manager serialises its calls. Any thread may call it.
class KeychainTokenStore : public TokenPersisting {
 public:
  // The item's attributes; together they identify the one item.
  static constexpr std::string_view serviceAttribute = "service";
  static constexpr std::string_view accountAttribute = "account";
  static constexpr std::string_view accessGroupAttribute = "access-group";
  static constexpr std::string_view account = "tokens";

  // The application identifier followed by ".tokens".
  static std::string defaultService();

  // Uses defaultService() and AppGroup::keychainAccessGroup().
  KeychainTokenStore();
  KeychainTokenStore(std::string service, std::string accessGroup);

  // True when a Secret Service answers on the session bus. Does not unlock
  // anything or touch the item.
  static bool isAvailable();

  std::optional<TokenSet> load() override;
  void save(const TokenSet& tokens) override;
  void clear() override;

  std::string service;
  std::string accessGroup;
};

}  // namespace synckit
