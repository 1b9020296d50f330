#include "synckit/platform/keychain_token_store.h"

#include <libsecret/secret.h>

#include <memory>

#include "synckit/platform/app_group.h"
#include "synckit/platform/app_identity.h"
#include "synckit/platform/keychain_token_store_error.h"

namespace synckit {
namespace {

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
struct SecretValueUnref {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct HashTableUnref {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using ErrorPtr = std::unique_ptr<GError, GErrorFree>;

const SecretSchema& tokenSchema() {
  static const std::string name = std::string(AppIdentity::applicationIdentifier) + ".TokenSet";
  static const std::string service(KeychainTokenStore::serviceAttribute);
  static const std::string account(KeychainTokenStore::accountAttribute);
  static const std::string accessGroup(KeychainTokenStore::accessGroupAttribute);
  static const SecretSchema schema = {name.c_str(),
                                      SECRET_SCHEMA_NONE,
                                      {{service.c_str(), SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       {account.c_str(), SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       {accessGroup.c_str(), SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                      0,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr};
  return schema;
}

// The attributes every operation matches on. The table borrows the strings
// of `store`, which outlives each call.
std::unique_ptr<GHashTable, HashTableUnref> itemAttributes(const KeychainTokenStore& store) {
  std::unique_ptr<GHashTable, HashTableUnref> table(g_hash_table_new(g_str_hash, g_str_equal));
  g_hash_table_insert(table.get(), const_cast<char*>(tokenSchema().attributes[0].name),
                      const_cast<char*>(store.service.c_str()));
  g_hash_table_insert(table.get(), const_cast<char*>(tokenSchema().attributes[1].name),
                      const_cast<char*>(KeychainTokenStore::account.data()));
  g_hash_table_insert(table.get(), const_cast<char*>(tokenSchema().attributes[2].name),
                      const_cast<char*>(store.accessGroup.c_str()));
  return table;
}

[[noreturn]] void throwStatus(const ErrorPtr& error) {
  if (!error) throw KeychainTokenStoreError::unexpectedStatus(-1);
  std::optional<std::string> message;
  if (error->message != nullptr) message = std::string(error->message);
  throw KeychainTokenStoreError::unexpectedStatus(error->code, std::move(message));
}

}  // namespace

std::string KeychainTokenStore::defaultService() {
  return std::string(AppIdentity::applicationIdentifier) + ".tokens";
}

KeychainTokenStore::KeychainTokenStore()
    : KeychainTokenStore(defaultService(), AppGroup::keychainAccessGroup()) {}

KeychainTokenStore::KeychainTokenStore(std::string service, std::string accessGroup)
    : service(std::move(service)), accessGroup(std::move(accessGroup)) {}

bool KeychainTokenStore::isAvailable() {
  GError* rawError = nullptr;
  // Opening a session is a real round trip to the service, so a bus without
  // a Secret Service (or no bus at all) fails here rather than on first use.
  std::unique_ptr<SecretService, ObjectUnref> service(
      secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &rawError));
  ErrorPtr error(rawError);
  return service != nullptr && !error;
}

std::optional<TokenSet> KeychainTokenStore::load() {
  auto attributes = itemAttributes(*this);
  GError* rawError = nullptr;
  std::unique_ptr<SecretValue, SecretValueUnref> value(
      secret_password_lookupv_binary_sync(&tokenSchema(), attributes.get(), nullptr, &rawError));
  ErrorPtr error(rawError);
  if (error) throwStatus(error);
  if (!value) return std::nullopt;
  gsize length = 0;
  const gchar* data = secret_value_get(value.get(), &length);
  return decodeTokenSet(std::span(reinterpret_cast<const std::uint8_t*>(data), length));
}

void KeychainTokenStore::save(const TokenSet& tokens) {
  Bytes json = encodeTokenSet(tokens);
  auto attributes = itemAttributes(*this);
  std::unique_ptr<SecretValue, SecretValueUnref> value(
      secret_value_new(reinterpret_cast<const gchar*>(json.data()),
                       static_cast<gssize>(json.size()), "application/json"));
  std::string label = std::string(AppIdentity::applicationIdentifier) + " sign-in tokens";
  GError* rawError = nullptr;
  // Storing with the same attributes replaces the existing item, so there is
  // never more than one.
  gboolean stored = secret_password_storev_binary_sync(&tokenSchema(), attributes.get(),
                                                       SECRET_COLLECTION_DEFAULT, label.c_str(),
                                                       value.get(), nullptr, &rawError);
  ErrorPtr error(rawError);
  if (!stored || error) throwStatus(error);
}

void KeychainTokenStore::clear() {
  auto attributes = itemAttributes(*this);
  GError* rawError = nullptr;
  // Returns false without an error when there was nothing to remove.
  secret_password_clearv_sync(&tokenSchema(), attributes.get(), nullptr, &rawError);
  ErrorPtr error(rawError);
  if (error) throwStatus(error);
}

}  // namespace synckit
