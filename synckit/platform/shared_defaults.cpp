#include "synckit/platform/shared_defaults.h"

#include <nlohmann/json.hpp>

#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"

namespace synckit {
namespace {

// Far deeper than any defaults file needs. Writing a value recurses once per
// level, so a file nested deeper than this is refused as unusable.
constexpr int maxDepth = 64;

// The stored object; an empty one when the file does not exist. Throws
// DecodingError when the file exists but holds no usable JSON object.
nlohmann::json readObject(const std::filesystem::path& file) {
  auto content = AtomicFile::read(file);
  if (!content) return nlohmann::json::object();
  bool tooDeep = false;
  auto value = nlohmann::json::parse(
      content->begin(), content->end(),
      [&](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
        tooDeep = tooDeep || depth > maxDepth;
        return !tooDeep;
      },
      /*allow_exceptions=*/false);
  auto unusable = [&](std::string_view why) {
    return DecodingError(
        DecodingError::Kind::dataCorrupted,
        "The shared defaults file \u201c" + file.string() + "\u201d " + std::string(why));
  };
  if (tooDeep) throw unusable("is nested too deeply.");
  if (value.is_discarded() || !value.is_object()) throw unusable("does not hold a JSON object.");
  return value;
}

// One member per line keeps the file easy to edit by hand. Values are written
// compactly: indenting nested values would make the file grow with the square
// of their depth.
std::string render(const nlohmann::json& object) {
  constexpr auto replace = nlohmann::json::error_handler_t::replace;
  std::string text = "{";
  const char* separator = "\n  ";
  for (const auto& [key, value] : object.items()) {
    text += separator;
    text += nlohmann::json(key).dump(-1, ' ', false, replace);
    text += ": ";
    text += value.dump(-1, ' ', false, replace);
    separator = ",\n  ";
  }
  text += object.empty() ? "}\n" : "\n}\n";
  return text;
}

}  // namespace

SharedDefaults::SharedDefaults(std::filesystem::path file) : file_(std::move(file)) {}

std::optional<std::string> SharedDefaults::string(std::string_view key) const {
  nlohmann::json object;
  try {
    object = readObject(file_);
  } catch (const PosixError&) {
    // An unreadable defaults file means no defaults, as a missing one does.
    return std::nullopt;
  } catch (const DecodingError&) {
    return std::nullopt;
  }
  auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

void SharedDefaults::set(std::string_view key, const std::optional<std::string>& value) {
  // Replacing a file we cannot read would throw away whatever the user put
  // there by hand, so an unusable one makes readObject throw instead.
  auto object = readObject(file_);
  if (value) {
    object[std::string(key)] = *value;
  } else {
    object.erase(std::string(key));
  }
  AtomicFile::createDirectories(file_.parent_path());
  AtomicFile::write(file_, toBytes(render(object)), 0600);
}

}  // namespace synckit
