#include "synckit/platform/file_token_store.h"

#include <string.h>

#include <cerrno>

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
    content = AtomicFile::readPrivate(file);
  } catch (const PosixError& error) {
    // Tokens from a file someone else could have planted, swapped or read
    // are not used; the user signs in again instead.
    if (error.code() == ELOOP) {
      throw KeychainTokenStoreError::unexpectedStatus(ELOOP, "The token file is a symbolic link.");
    }
    if (error.code() == EPERM) {
      throw KeychainTokenStoreError::unexpectedStatus(
          EPERM, "The token file is not a file of this user closed to everyone else.");
    }
    rethrowAsKeychainError(error);
  }
  if (!content) return std::nullopt;
  return decodeTokenSet(*content);
}

void FileTokenStore::save(const TokenSet& tokens) {
  Bytes json = encodeTokenSet(tokens);
  try {
    AtomicFile::createDirectories(file.parent_path(), 0700);
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
