#include "provider/mirror_path_error.h"

#include <string.h>

namespace halvark::provider {
namespace {

std::string quoted(const std::string& path) { return "\u201c" + path + "\u201d"; }

}  // namespace

MirrorPathError::MirrorPathError(Reason reason, std::string description, std::string path,
                                 std::string where, int code)
    : Error(std::move(description)),
      reason_(reason),
      path_(std::move(path)),
      where_(std::move(where)),
      code_(code) {}

MirrorPathError MirrorPathError::invalidPath(std::string path) {
  std::string text = quoted(path) + " is not a valid path in the mirror folder.";
  return MirrorPathError(Reason::invalidPath, std::move(text), std::move(path), {}, 0);
}

MirrorPathError MirrorPathError::symbolicLink(std::string path, std::string where) {
  std::string text = where == path ? quoted(path) + " in the mirror folder is a symbolic link."
                                   : quoted(path) + " in the mirror folder passes through " +
                                         "a symbolic link at " + quoted(where) + ".";
  return MirrorPathError(Reason::symbolicLink, std::move(text), std::move(path), std::move(where),
                         0);
}

MirrorPathError MirrorPathError::notDirectory(std::string path, std::string where) {
  std::string text = where == path ? quoted(path) + " in the mirror folder is not a folder."
                                   : quoted(path) + " in the mirror folder passes through " +
                                         quoted(where) + ", which is not a folder.";
  return MirrorPathError(Reason::notDirectory, std::move(text), std::move(path), std::move(where),
                         0);
}

MirrorPathError MirrorPathError::notRegularFile(std::string path) {
  std::string text = quoted(path) + " in the mirror folder is not a regular file.";
  return MirrorPathError(Reason::notRegularFile, std::move(text), std::move(path), {}, 0);
}

MirrorPathError MirrorPathError::alreadyExists(std::string path) {
  std::string text = quoted(path) + " already exists in the mirror folder.";
  return MirrorPathError(Reason::alreadyExists, std::move(text), std::move(path), {}, 0);
}

MirrorPathError MirrorPathError::systemError(std::string path, const std::string& action,
                                             int code) {
  const char* reason = strerrordesc_np(code);
  std::string text = "Could not " + action + " " + quoted(path) +
                     " in the mirror folder: " + (reason ? reason : "Unknown error") + ".";
  return MirrorPathError(Reason::systemError, std::move(text), std::move(path), {}, code);
}

MirrorPathError MirrorPathError::unusableRoot(std::string rootPath, int code) {
  const char* reason = strerrordesc_np(code);
  std::string text = "The mirror folder " + quoted(rootPath) +
                     " cannot be used: " + (reason ? reason : "Unknown error") + ".";
  return MirrorPathError(Reason::systemError, std::move(text), std::move(rootPath), {}, code);
}

}  // namespace halvark::provider
