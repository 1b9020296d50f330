#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <span>

#include "synckit/base/bytes.h"

namespace synckit {

// Small file primitives shared by everything in the container that must never
// leave a half-written file behind (defaults, token file, spool entries).
// Failures throw PosixError with the errno of the failing call. Any thread.
namespace AtomicFile {

// Writes `data` to a temporary file beside `file`, flushes it, gives it
// `mode` and renames it over `file`, so readers see the old or the new
// content, never a mix. The parent directory must exist.
void write(const std::filesystem::path& file, std::span<const std::uint8_t> data,
           mode_t mode = 0644);

// The whole content of `file`; absent when it does not exist.
std::optional<Bytes> read(const std::filesystem::path& file);

// Like read, for a file holding secrets: it must be a regular file (not a
// symbolic link: ELOOP) owned by this process's user, and neither group nor
// others may have any access to it (otherwise EPERM).
std::optional<Bytes> readPrivate(const std::filesystem::path& file);

// Deletes `file`; true when it existed.
bool remove(const std::filesystem::path& file);

// Creates `directory` and any missing parents, each with `mode` less the
// umask; directories that already exist keep their mode.
void createDirectories(const std::filesystem::path& directory, mode_t mode = 0777);

}  // namespace AtomicFile
}  // namespace synckit
