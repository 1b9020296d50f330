#pragma once

#include <string>

#include "synckit/base/error.h"

namespace halvark::provider {

// A mirror-relative path the provider refused or failed to touch: not a
// valid path, passing through a symbolic link or a file, already taken, or
// a system call that failed on it. The text names the path and why, so that
// the caller can skip the item with one log line. path() is the whole
// mirror-relative path; where() the prefix of it at which the walk stopped.
class MirrorPathError : public synckit::Error {
 public:
  enum class Reason {
    invalidPath,
    symbolicLink,
    notDirectory,
    notRegularFile,
    alreadyExists,
    systemError
  };

  static MirrorPathError invalidPath(std::string path);
  static MirrorPathError symbolicLink(std::string path, std::string where);
  static MirrorPathError notDirectory(std::string path, std::string where);
  static MirrorPathError notRegularFile(std::string path);
  static MirrorPathError alreadyExists(std::string path);
  // `action` completes "Could not … “path”", e.g. "create the folder".
  static MirrorPathError systemError(std::string path, const std::string& action, int code);
  // The mirror folder itself (an absolute path) cannot be made or opened.
  static MirrorPathError unusableRoot(std::string rootPath, int code);

  Reason reason() const noexcept { return reason_; }
  const std::string& path() const noexcept { return path_; }
  const std::string& where() const noexcept { return where_; }
  // The errno value of a systemError; 0 otherwise.
  int code() const noexcept { return code_; }

 private:
  MirrorPathError(Reason reason, std::string description, std::string path, std::string where,
                  int code);

  Reason reason_;
  std::string path_;
  std::string where_;
  int code_;
};

}  // namespace halvark::provider
