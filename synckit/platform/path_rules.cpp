#include "synckit/platform/path_rules.h"

namespace synckit::PathRules {

bool isNormalizedWritePath(std::string_view path) {
  if (path.empty()) return false;
  if (path.find('\\') != std::string_view::npos) return false;
  if (path.find('\0') != std::string_view::npos) return false;
  std::size_t start = 0;
  for (;;) {
    std::size_t slash = path.find('/', start);
    std::string_view component = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (component.empty() || component == "." || component == "..") return false;
    if (slash == std::string_view::npos) return true;
    start = slash + 1;
  }
}

std::string_view lastComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::vector<std::string_view> properAncestors(std::string_view path) {
  std::vector<std::string_view> ancestors;
  for (std::size_t i = 1; i < path.size(); ++i) {
    if (path[i] == '/') ancestors.push_back(path.substr(0, i));
  }
  return ancestors;
}

}  // namespace synckit::PathRules
