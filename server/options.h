#pragma once
// The command line of halvark-devserver.

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace devserver {

struct Options {
  int port = 0;          // 0: pick a free port
  std::string basePath;  // "" or "/prefix" (no trailing "/")
  std::optional<std::string> stateFile;
  std::int64_t tokenLifetimeSeconds = 3600;
  std::map<std::string, std::string> members;  // name -> password
  std::optional<std::string> seed;             // "demo"
  bool quiet = false;                          // no request log on standard error
  bool help = false;
  bool operator==(const Options&) const = default;
};

class OptionsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Parses the arguments after the program name. Without --member the one member
// is "demo" with the password "demo". Throws OptionsError with a message fit to
// print after "halvark-devserver: ".
Options parseOptions(const std::vector<std::string>& args);

extern const char* const kUsage;

}  // namespace devserver
