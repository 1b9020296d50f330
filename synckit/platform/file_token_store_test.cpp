#include "synckit/platform/file_token_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "synckit/base/error.h"
#include "synckit/platform/keychain_token_store_error.h"
#include "synckit/platform/token_store_factory.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
using testing::thrownBy;

std::filesystem::perms modeOf(const std::filesystem::path& file) {
  return std::filesystem::status(file).permissions() & std::filesystem::perms::all;
}

constexpr auto ownerOnly = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

TEST(TokenSetCodingTest, EncodesExactlyTheTwoKeysAndDecodesStrictly) {
  TokenSet tokens{"acc\"ess", "refr\u00e9sh"};
  Bytes json = encodeTokenSet(tokens);
  EXPECT_EQ(toString(json), R"({"accessToken":"acc\"ess","refreshToken":"refr)"
                            "\u00e9"
                            R"(sh"})");
  EXPECT_EQ(decodeTokenSet(json), tokens);
  EXPECT_EQ(decodeTokenSet(toBytes(R"({"refreshToken":"r","accessToken":"a","extra":1})")),
            (TokenSet{"a", "r"}));

  auto decodingKind = [](std::string_view text) {
    return thrownBy<DecodingError>([&] { decodeTokenSet(toBytes(text)); }).kind();
  };
  EXPECT_EQ(decodingKind("not json"), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(decodingKind(""), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(decodingKind(R"(["a","r"])"), DecodingError::Kind::typeMismatch);
  EXPECT_EQ(decodingKind(R"({"accessToken":"a"})"), DecodingError::Kind::keyNotFound);
  EXPECT_EQ(decodingKind(R"({"accessToken":"a","refreshToken":null})"),
            DecodingError::Kind::valueNotFound);
  EXPECT_EQ(decodingKind(R"({"accessToken":5,"refreshToken":"r"})"),
            DecodingError::Kind::typeMismatch);

  EXPECT_THROW(encodeTokenSet(TokenSet{"\xff", "r"}), Error);
}

TEST(FileTokenStoreTest, RoundTripsInAnOwnerOnlyFile) {
  TemporaryDirectory temp;
  FileTokenStore store(temp / "Library" / "Application Support" / "Halvark" / "tokens.json");
  EXPECT_EQ(store.load(), std::nullopt);
  EXPECT_NO_THROW(store.clear());

  ::mode_t previous = ::umask(0);  // a permissive umask must not widen the file
  store.save(TokenSet{"access-1", "refresh-1"});
  ::umask(previous);
  EXPECT_EQ(modeOf(store.file), ownerOnly);
  EXPECT_EQ(store.load(), (TokenSet{"access-1", "refresh-1"}));

  // Even a file someone widened by hand is owner-only again after a save.
  std::filesystem::permissions(store.file, std::filesystem::perms::all);
  store.save(TokenSet{"access-2", "refresh-2"});
  EXPECT_EQ(modeOf(store.file), ownerOnly);
  EXPECT_EQ(store.load(), (TokenSet{"access-2", "refresh-2"}));
  EXPECT_EQ(FileTokenStore(store.file).load(), (TokenSet{"access-2", "refresh-2"}));

  std::size_t entries = 0;
  for ([[maybe_unused]] const auto& entry :
       std::filesystem::directory_iterator(store.file.parent_path()))
    ++entries;
  EXPECT_EQ(entries, 1u);  // no temporary files left behind

  store.clear();
  EXPECT_FALSE(std::filesystem::exists(store.file));
  EXPECT_EQ(store.load(), std::nullopt);

  // A damaged file fails to load and stays until a save replaces it.
  std::ofstream(store.file) << "{\"accessToken\": \"only\"}";
  std::filesystem::permissions(store.file, ownerOnly);
  EXPECT_THROW(store.load(), DecodingError);
  EXPECT_TRUE(std::filesystem::exists(store.file));
  store.save(TokenSet{"a", "r"});
  EXPECT_EQ(store.load(), (TokenSet{"a", "r"}));
}

TEST(FileTokenStoreTest, CreatesPrivateFoldersAndLoadsOnlyAPrivateFileOfThisUser) {
  TemporaryDirectory temp;
  FileTokenStore store(temp / "Library" / "Halvark" / "tokens.json");
  ::mode_t previous = ::umask(0);
  store.save(TokenSet{"a", "r"});
  ::umask(previous);
  EXPECT_EQ(modeOf(temp / "Library"), std::filesystem::perms::owner_all);
  EXPECT_EQ(modeOf(temp / "Library" / "Halvark"), std::filesystem::perms::owner_all);

  auto refusal = [&] { return thrownBy<KeychainTokenStoreError>([&] { store.load(); }).status(); };
  std::filesystem::permissions(store.file, std::filesystem::perms::group_read,
                               std::filesystem::perm_options::add);
  EXPECT_EQ(refusal(), EPERM);
  EXPECT_TRUE(std::filesystem::exists(store.file));

  // A link to a well-formed private file elsewhere is still refused.
  std::filesystem::permissions(store.file, ownerOnly);
  std::filesystem::rename(store.file, temp / "elsewhere.json");
  std::filesystem::create_symlink(temp / "elsewhere.json", store.file);
  EXPECT_EQ(refusal(), ELOOP);

  std::filesystem::remove(store.file);
  std::filesystem::rename(temp / "elsewhere.json", store.file);
  EXPECT_EQ(store.load(), (TokenSet{"a", "r"}));
  if (::geteuid() == 0) {  // only root can hand the file to another user
    ASSERT_EQ(::chown(store.file.c_str(), 4242, 4242), 0);
    EXPECT_EQ(refusal(), EPERM);
  }
}

TEST(FileTokenStoreTest, FileSystemFailuresSurfaceAsKeychainErrors) {
  TemporaryDirectory temp;
  std::ofstream(temp / "not-a-directory") << "x";
  FileTokenStore store(temp / "not-a-directory" / "tokens.json");
  EXPECT_EQ(thrownBy<KeychainTokenStoreError>([&] {
              store.save(TokenSet{"a", "r"});
            }).description(),
            "Keychain error 20: Not a directory");
  EXPECT_EQ(thrownBy<KeychainTokenStoreError>([&] { store.load(); }).status(), ENOTDIR);
  EXPECT_EQ(KeychainTokenStoreError::unexpectedStatus(-25300).description(),
            "Keychain error -25300: unknown error");
}

TEST(TokenStoreFactoryTest, FallsBackToTheContainerFileWithoutASecretService) {
  TemporaryDirectory temp;
  ScopedEnvironment env;
  env.set("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (temp / "no-bus").string())
      .set("HALVARK_CONTAINER", temp.path().string());

  auto store = makeTokenStore();
  auto* file = dynamic_cast<FileTokenStore*>(store.get());
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->file, temp / "Library" / "Application Support" / "Halvark" / "tokens.json");
  store->save(TokenSet{"a", "r"});
  EXPECT_EQ(modeOf(file->file), ownerOnly);

  // Used directly, the keychain store reports the missing service as its own error.
  EXPECT_TRUE(thrownBy<KeychainTokenStoreError>([] { KeychainTokenStore().load(); })
                  .description()
                  .starts_with("Keychain error "));
}

}  // namespace
}  // namespace synckit
