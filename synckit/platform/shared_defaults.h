#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace synckit {

// User defaults shared by the system's processes: one JSON object in a file
// ($XDG_CONFIG_HOME/halvark/defaults.json), read afresh on every access so
// that a change made by another process or by hand is seen at once.
// Any thread may use it; writes replace the file atomically.
class SharedDefaults {
 public:
  explicit SharedDefaults(std::filesystem::path file);

  // The string stored under `key`; absent when the file, the key or a string
  // value is missing, or the file is not a JSON object.
  std::optional<std::string> string(std::string_view key) const;
  // Stores `value` under `key`, or removes the key when `value` is absent.
  void set(std::string_view key, const std::optional<std::string>& value);

  const std::filesystem::path& file() const noexcept { return file_; }

 private:
  std::filesystem::path file_;
};

}  // namespace synckit
