#include "synckit/platform/ignore_list.h"

#include <string>
#include <unordered_set>

namespace synckit::IgnoreList {
namespace {

const std::unordered_set<std::string_view>& ignoredNames() {
  static const std::unordered_set<std::string_view> names{".DS_Store", ".localized", "Icon\r",
                                                          ".gitkeep"};
  return names;
}

}  // namespace

bool isIgnored(std::string_view path) {
  std::size_t slash = path.rfind('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  return ignoredNames().contains(name);
}

}  // namespace synckit::IgnoreList
