#pragma once

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace synckit::testing {

// Sets or unsets environment variables for the life of the object and puts
// the previous values back afterwards. The environment is process-wide:
// use only in tests that start no threads reading it.
class ScopedEnvironment {
 public:
  ScopedEnvironment() = default;
  ~ScopedEnvironment() {
    for (const auto& [name, previous] : saved_) {
      if (previous) {
        ::setenv(name.c_str(), previous->c_str(), 1);
      } else {
        ::unsetenv(name.c_str());
      }
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  // Absent unsets the variable.
  ScopedEnvironment& set(const std::string& name, const std::optional<std::string>& value) {
    if (!saved_.contains(name)) {
      const char* current = std::getenv(name.c_str());
      saved_[name] = current ? std::optional<std::string>(current) : std::nullopt;
    }
    if (value) {
      ::setenv(name.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name.c_str());
    }
    return *this;
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace synckit::testing
