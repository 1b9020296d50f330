#include "synckit/platform/file_token_store.h"

#include <string.h>

#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/platform/keychain_token_store_error.h"

namespace synckit {
namespace {

// The token manager handles one error type from every token store.
[[noreturn]] void rethrowAsKeychainError(const PosixError& error) {
  const char* message = strerrordesc_np(error.code());
  throw KeychainTokenStoreError::unexpectedStatus(
      error.code(), message != nullptr ? std::optional<std::string>(message) : std::nullopt);
}

}  // namespace

FileTokenStore::FileTokenStore(std::filesystem::path file) : file(std::move(file)) {}

std::optional<TokenSet> FileTokenStore::load() {
  std::optional<Bytes> content;
  try {
    content = AtomicFile::read(file);
  } catch (const PosixError& error) {
    rethrowAsKeychainError(error);
  }
  if (!content) return std::nullopt;
  return decodeTokenSet(*content);
}

void FileTokenStore::save(const TokenSet& tokens) {
  Bytes json = encodeTokenSet(tokens);
  try {
    AtomicFile::createDirectories(file.parent_path());
    AtomicFile::write(file, json, 0600);
  } catch (const PosixError& error) {
    rethrowAsKeychainError(error);
  }
}

void FileTokenStore::clear() {
  try {
    AtomicFile::remove(file);
  } catch (const PosixError& error) {
    rethrowAsKeychainError(error);
  }
}

}  // namespace synckit
