#include "synckit/platform/provider_progress.h"

#include <nlohmann/json.hpp>

#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"

namespace synckit::ProviderProgressFile {

void write(const std::filesystem::path& file, const ProviderProgress& progress) {
  nlohmann::json object = {
      {"filesRemaining", progress.filesRemaining},
      {"bytesRemaining", progress.bytesRemaining},
      {"idle", progress.idle},
      {"updatedAt", progress.updatedAt.toString()},
  };
  AtomicFile::createDirectories(file.parent_path(), 0700);
  AtomicFile::write(file, toBytes(object.dump() + "\n"), 0600);
}

std::optional<ProviderProgress> read(const std::filesystem::path& file) {
  std::optional<Bytes> content;
  try {
    content = AtomicFile::read(file);
  } catch (const PosixError&) {
    return std::nullopt;
  }
  if (!content) return std::nullopt;
  auto object = nlohmann::json::parse(content->begin(), content->end(), nullptr,
                                      /*allow_exceptions=*/false);
  if (!object.is_object()) return std::nullopt;
  auto files = object.find("filesRemaining");
  auto bytes = object.find("bytesRemaining");
  auto idle = object.find("idle");
  auto updatedAt = object.find("updatedAt");
  if (files == object.end() || !files->is_number_integer() || bytes == object.end() ||
      !bytes->is_number_integer() || idle == object.end() || !idle->is_boolean() ||
      updatedAt == object.end() || !updatedAt->is_string()) {
    return std::nullopt;
  }
  auto timestamp = Timestamp::parse(updatedAt->get_ref<const std::string&>());
  if (!timestamp) return std::nullopt;
  return ProviderProgress{files->get<std::int64_t>(), bytes->get<std::int64_t>(), idle->get<bool>(),
                          *timestamp};
}

}  // namespace synckit::ProviderProgressFile
