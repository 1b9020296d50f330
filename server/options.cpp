#include "server/options.h"

#include <charconv>

namespace devserver {

const char* const kUsage =
    "usage: halvark-devserver [options]\n"
    "  --port N              listen on 127.0.0.1:N (default 0: a free port)\n"
    "  --base-path /PREFIX   serve everything below this path\n"
    "  --state FILE          keep the state in this SQLite file across restarts\n"
    "  --token-lifetime S    access tokens expire after S seconds (default 3600)\n"
    "  --member NAME:PASS    a member who may sign in (repeatable; default demo:demo)\n"
    "  --seed demo           create a sample brain when it does not exist yet\n"
    "  --quiet               do not log requests\n"
    "The first line of standard output is the base URL.\n";

namespace {

std::int64_t parseInteger(const std::string& option, const std::string& text, std::int64_t min,
                          std::int64_t max) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < min || value > max) {
    throw OptionsError(option + " needs a number from " + std::to_string(min) + " to " +
                       std::to_string(max) + ", not \"" + text + "\"");
  }
  return value;
}

std::string normalizeBasePath(const std::string& text) {
  std::string path = text;
  while (!path.empty() && path.back() == '/') path.pop_back();
  if (path.empty()) return path;
  if (path.front() != '/') path.insert(path.begin(), '/');
  for (char c : path) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '/' || c == '-' || c == '_' || c == '.' || c == '~';
    if (!ok) throw OptionsError("--base-path may only hold letters, digits and - _ . ~ /");
  }
  if (path.find("//") != std::string::npos) throw OptionsError("--base-path has an empty segment");
  return path;
}

}  // namespace

Options parseOptions(const std::vector<std::string>& args) {
  Options options;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string arg = args[i];
    std::optional<std::string> inlineValue;
    if (auto eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      inlineValue = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
    }
    auto value = [&]() -> std::string {
      if (inlineValue) return *inlineValue;
      if (i + 1 >= args.size()) throw OptionsError(arg + " needs a value");
      return args[++i];
    };
    if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg == "--quiet") {
      options.quiet = true;
    } else if (arg == "--port") {
      options.port = static_cast<int>(parseInteger(arg, value(), 0, 65535));
    } else if (arg == "--base-path") {
      options.basePath = normalizeBasePath(value());
    } else if (arg == "--state") {
      options.stateFile = value();
      if (options.stateFile->empty()) throw OptionsError("--state needs a file name");
    } else if (arg == "--token-lifetime") {
      options.tokenLifetimeSeconds = parseInteger(arg, value(), 1, 365LL * 24 * 3600);
    } else if (arg == "--member") {
      std::string entry = value();
      auto colon = entry.find(':');
      if (colon == std::string::npos || colon == 0 || colon + 1 == entry.size()) {
        throw OptionsError("--member needs NAME:PASSWORD, not \"" + entry + "\"");
      }
      std::string name = entry.substr(0, colon);
      if (!options.members.emplace(name, entry.substr(colon + 1)).second) {
        throw OptionsError("member \"" + name + "\" is given twice");
      }
    } else if (arg == "--seed") {
      options.seed = value();
      if (*options.seed != "demo") {
        throw OptionsError("--seed knows only \"demo\", not \"" + *options.seed + "\"");
      }
    } else {
      throw OptionsError("unknown option \"" + args[i] + "\"");
    }
  }
  if (options.members.empty()) options.members.emplace("demo", "demo");
  return options;
}

}  // namespace devserver
