#include "synckit/platform/shared_defaults.h"

#include <nlohmann/json.hpp>

#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"

namespace synckit {
namespace {

// The stored object; an empty one when the file does not exist. A file that
// exists but holds no JSON object yields absent.
std::optional<nlohmann::json> readObject(const std::filesystem::path& file) {
  auto content = AtomicFile::read(file);
  if (!content) return nlohmann::json::object();
  auto value =
      nlohmann::json::parse(content->begin(), content->end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded() || !value.is_object()) return std::nullopt;
  return value;
}

}  // namespace

SharedDefaults::SharedDefaults(std::filesystem::path file) : file_(std::move(file)) {}

std::optional<std::string> SharedDefaults::string(std::string_view key) const {
  std::optional<nlohmann::json> object;
  try {
    object = readObject(file_);
  } catch (const PosixError&) {
    // An unreadable defaults file means no defaults, as a missing one does.
    return std::nullopt;
  }
  if (!object) return std::nullopt;
  auto found = object->find(key);
  if (found == object->end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

void SharedDefaults::set(std::string_view key, const std::optional<std::string>& value) {
  auto object = readObject(file_);
  if (!object) {
    // Replacing a file we cannot parse would throw away whatever the user
    // put there by hand; refuse instead.
    throw DecodingError(
        DecodingError::Kind::dataCorrupted,
        "The shared defaults file \u201c" + file_.string() + "\u201d does not hold a JSON object.");
  }
  if (value) {
    (*object)[std::string(key)] = *value;
  } else {
    object->erase(std::string(key));
  }
  AtomicFile::createDirectories(file_.parent_path());
  std::string text = object->dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  AtomicFile::write(file_, toBytes(text), 0600);
}

}  // namespace synckit
