// Runs against a real Secret Service: scripts/with-keyring provides a private
// session bus with an unlocked keyring daemon.
#include "synckit/platform/keychain_token_store.h"

#include <gtest/gtest.h>
#include <libsecret/secret.h>

#include <memory>

#include "synckit/base/error.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/token_store_factory.h"

namespace synckit {
namespace {

struct ItemListFree {
  void operator()(GList* list) const { g_list_free_full(list, g_object_unref); }
};
using ItemList = std::unique_ptr<GList, ItemListFree>;

// Finds items by the three attributes alone, whatever schema wrote them, so
// that a second item written under another schema name would show up too.
ItemList findItems(const KeychainTokenStore& store) {
  static const SecretSchema anySchema = {
      "any",
      SECRET_SCHEMA_DONT_MATCH_NAME,
      {{KeychainTokenStore::serviceAttribute.data(), SECRET_SCHEMA_ATTRIBUTE_STRING},
       {KeychainTokenStore::accountAttribute.data(), SECRET_SCHEMA_ATTRIBUTE_STRING},
       {KeychainTokenStore::accessGroupAttribute.data(), SECRET_SCHEMA_ATTRIBUTE_STRING},
       {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
      0,
      nullptr,
      nullptr,
      nullptr,
      nullptr,
      nullptr,
      nullptr,
      nullptr};
  std::unique_ptr<GHashTable, decltype(&g_hash_table_unref)> attributes(
      secret_attributes_build(
          &anySchema, KeychainTokenStore::serviceAttribute.data(), store.service.c_str(),
          KeychainTokenStore::accountAttribute.data(), KeychainTokenStore::account.data(),
          KeychainTokenStore::accessGroupAttribute.data(), store.accessGroup.c_str(), nullptr),
      &g_hash_table_unref);
  GError* error = nullptr;
  GList* items = secret_service_search_sync(
      nullptr, &anySchema, attributes.get(),
      static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_LOAD_SECRETS), nullptr,
      &error);
  if (error != nullptr) {
    ADD_FAILURE() << "search failed: " << error->message;
    g_error_free(error);
  }
  return ItemList(items);
}

std::string itemSecret(GList* items) {
  std::unique_ptr<SecretValue, decltype(&secret_value_unref)> value(
      secret_item_get_secret(SECRET_ITEM(items->data)), &secret_value_unref);
  if (!value) return "";
  gsize length = 0;
  const gchar* data = secret_value_get(value.get(), &length);
  return std::string(data, length);
}

// A store of its own per test, so tests never see each other's item.
KeychainTokenStore freshStore() {
  return KeychainTokenStore(KeychainTokenStore::defaultService() + "." + Uuid::random().toString(),
                            AppGroup::keychainAccessGroup());
}

TEST(KeychainTokenStoreTest, RoundTripsAndClearsOneItem) {
  ASSERT_TRUE(KeychainTokenStore::isAvailable())
      << "no Secret Service; run through scripts/with-keyring";
  KeychainTokenStore store = freshStore();
  EXPECT_EQ(store.load(), std::nullopt);
  EXPECT_NO_THROW(store.clear());

  // Saving again replaces the one item.
  store.save(TokenSet{"access-0", "refresh-0"});
  store.save(TokenSet{"access-\u00e9", "refresh-1"});
  EXPECT_EQ(store.load(), (TokenSet{"access-\u00e9", "refresh-1"}));
  EXPECT_EQ(KeychainTokenStore(store.service, store.accessGroup).load(),
            (TokenSet{"access-\u00e9", "refresh-1"}));

  // The item is told apart by every attribute.
  EXPECT_EQ(KeychainTokenStore(store.service, store.accessGroup + ".other").load(), std::nullopt);
  EXPECT_EQ(KeychainTokenStore(store.service + ".other", store.accessGroup).load(), std::nullopt);

  ItemList items = findItems(store);
  ASSERT_EQ(g_list_length(items.get()), 1u);
  EXPECT_EQ(itemSecret(items.get()), R"({"accessToken":"access-)"
                                     "\u00e9"
                                     R"(","refreshToken":"refresh-1"})");

  store.clear();
  EXPECT_EQ(store.load(), std::nullopt);
  EXPECT_EQ(g_list_length(findItems(store).get()), 0u);
  EXPECT_NO_THROW(store.clear());
}

TEST(KeychainTokenStoreTest, DamagedItemFailsToLoadAndStaysInPlace) {
  KeychainTokenStore store = freshStore();
  store.save(TokenSet{"access", "refresh"});
  {
    ItemList items = findItems(store);
    ASSERT_EQ(g_list_length(items.get()), 1u);
    std::unique_ptr<SecretValue, decltype(&secret_value_unref)> damaged(
        secret_value_new("{\"accessToken\": \"access\"", -1, "text/plain"), &secret_value_unref);
    GError* error = nullptr;
    ASSERT_TRUE(
        secret_item_set_secret_sync(SECRET_ITEM(items->data), damaged.get(), nullptr, &error));
  }

  EXPECT_THROW(store.load(), DecodingError);
  ItemList items = findItems(store);
  ASSERT_EQ(g_list_length(items.get()), 1u);
  EXPECT_EQ(itemSecret(items.get()), "{\"accessToken\": \"access\"");

  // A save repairs it.
  store.save(TokenSet{"a", "r"});
  EXPECT_EQ(store.load(), (TokenSet{"a", "r"}));
  store.clear();
}

TEST(KeychainTokenStoreTest, FactoryPrefersTheSecretService) {
  auto store = makeTokenStore(freshStore(), "/nonexistent/tokens.json");
  auto* keychain = dynamic_cast<KeychainTokenStore*>(store.get());
  ASSERT_NE(keychain, nullptr);
  store->save(TokenSet{"a", "r"});
  EXPECT_EQ(g_list_length(findItems(*keychain).get()), 1u);
  store->clear();
  EXPECT_FALSE(std::filesystem::exists("/nonexistent/tokens.json"));

  KeychainTokenStore defaults;
  EXPECT_EQ(defaults.service, "dev.halvark.Halvark.tokens");
  EXPECT_EQ(defaults.accessGroup, "HVK7Q2M4RZ.dev.halvark.Halvark.shared");
}

}  // namespace
}  // namespace synckit
