#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "synckit/base/timestamp.h"

namespace synckit {

// What the file provider still has to download, as it last published it.
struct ProviderProgress {
  std::int64_t filesRemaining = 0;
  std::int64_t bytesRemaining = 0;
  bool idle = true;
  Timestamp updatedAt;

  bool operator==(const ProviderProgress&) const = default;
};

// The provider publishes its progress in a small JSON file in the container
// ({"filesRemaining", "bytesRemaining", "idle", "updatedAt"}) that the
// application reads whenever it shows it. Any thread.
namespace ProviderProgressFile {

// Replaces `file` atomically, creating its directory when missing. Throws
// PosixError.
void write(const std::filesystem::path& file, const ProviderProgress& progress);

// The published progress; absent when there is none, or none that can be
// read or understood: it is only ever shown, never acted upon.
std::optional<ProviderProgress> read(const std::filesystem::path& file);

}  // namespace ProviderProgressFile
}  // namespace synckit
