#include "server/brain_path.h"

namespace devserver {

bool isValidBrainPath(std::string_view path) {
  if (path.empty()) return false;
  std::size_t start = 0;
  while (true) {
    std::size_t end = path.find('/', start);
    std::string_view component =
        path.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (component.empty() || component == "." || component == "..") return false;
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  for (char c : path) {
    if (c == '\\' || c == '\0') return false;
  }
  return true;
}

std::string lastComponent(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::vector<std::string> ancestorPaths(std::string_view path) {
  std::vector<std::string> out;
  for (std::size_t i = 1; i < path.size(); ++i) {
    if (path[i] == '/') out.emplace_back(path.substr(0, i));
  }
  return out;
}

bool isWithin(std::string_view path, std::string_view root) {
  if (path.size() == root.size()) return path == root;
  return path.size() > root.size() && path.substr(0, root.size()) == root &&
         path[root.size()] == '/';
}

std::string defaultTitle(std::string_view path) {
  std::string name = lastComponent(path);
  std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return name;
  return name.substr(0, dot);
}

}  // namespace devserver
