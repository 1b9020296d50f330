#include "provider/mirror_root.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "provider/mirror_path_error.h"
#include "synckit/base/crash_point.h"
#include "synckit/base/crypto.h"
#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"

namespace halvark::provider {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::string_view kStagedSuffix = MirrorRoot::stagedSuffix;
constexpr std::string_view kParkedPrefix = "parked-";

// The components of a mirror-relative path, each checked; "" gives none.
std::vector<std::string> componentsOf(std::string_view path) {
  std::vector<std::string> components;
  if (path.empty()) return components;
  std::size_t start = 0;
  for (;;) {
    std::size_t slash = path.find('/', start);
    std::string_view part =
        path.substr(start, slash == std::string_view::npos ? slash : slash - start);
    if (part.empty() || part == "." || part == ".." || part.size() > NAME_MAX ||
        part.find('\0') != std::string_view::npos) {
      throw MirrorPathError::invalidPath(std::string(path));
    }
    components.emplace_back(part);
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  // The staging folder is the provider's own; nothing reaches it by path.
  if (components.front() == MirrorRoot::stagingFolderName) {
    throw MirrorPathError::invalidPath(std::string(path));
  }
  return components;
}

// The first `count` components joined again, to name where a walk stopped.
std::string prefixOf(const std::vector<std::string>& components, std::size_t count) {
  std::string prefix;
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) prefix += '/';
    prefix += components[i];
  }
  return prefix;
}

FileState stateOf(const struct stat& status) {
  FileState state;
  state.exists = true;
  state.isRegular = S_ISREG(status.st_mode);
  state.isDirectory = S_ISDIR(status.st_mode);
  state.isSymlink = S_ISLNK(status.st_mode);
  state.size = static_cast<std::int64_t>(status.st_size);
  state.mtimeNanoseconds =
      static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec;
  state.inode = static_cast<std::uint64_t>(status.st_ino);
  return state;
}

// A fresh name nobody else in the staging folder uses.
std::string randomName() { return synckit::hexLower(synckit::secureRandomBytes(12)); }

void syncFolder(int fd, std::string_view path) {
  if (::fsync(fd) != 0 && errno != EINVAL) {
    throw MirrorPathError::systemError(std::string(path), "flush the folder of", errno);
  }
}

// The names in an open folder (without "." and ".."), which it takes over.
std::vector<std::string> namesIn(MirrorRoot::Fd folder, std::string_view path) {
  DIR* directory = ::fdopendir(folder.get());
  if (directory == nullptr) throw MirrorPathError::systemError(std::string(path), "list", errno);
  folder.release();  // the DIR owns it now
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(directory)) {
    std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  const int code = errno;
  ::closedir(directory);
  if (code != 0) throw MirrorPathError::systemError(std::string(path), "list", code);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

int MirrorRoot::renameWithoutReplacing(int fromFolder, const char* fromName, int toFolder,
                                       const char* toName) {
  if (::renameat2(fromFolder, fromName, toFolder, toName, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL) return -1;
  // The kernel also reports a folder moved into itself with EINVAL; the
  // plain rename then fails the same way.
  struct stat status;
  if (::fstatat(toFolder, toName, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return -1;
  }
  if (errno != ENOENT) return -1;
  return ::renameat(fromFolder, fromName, toFolder, toName);
}

MirrorRoot::Fd::~Fd() {
  if (fd_ >= 0) ::close(fd_);
}

MirrorRoot::Fd& MirrorRoot::Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

MirrorRoot::MirrorRoot(std::filesystem::path root) : path_(std::move(root)) {
  try {
    synckit::AtomicFile::createDirectories(path_, 0700);
  } catch (const synckit::PosixError& error) {
    throw MirrorPathError::unusableRoot(path_.string(), error.code());
  }
  // The root itself may be reached through a link the user set up; only
  // what lies below it is walked without following one.
  root_ = Fd(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root_) throw MirrorPathError::unusableRoot(path_.string(), errno);
}

std::uint64_t MirrorRoot::device() const {
  struct stat status;
  if (::fstat(root_.get(), &status) != 0) {
    throw MirrorPathError::unusableRoot(path_.string(), errno);
  }
  return static_cast<std::uint64_t>(status.st_dev);
}

MirrorRoot::Fd MirrorRoot::openFolder(std::string_view path,
                                      const std::vector<std::string>& components, std::size_t count,
                                      bool create) const {
  Fd current(::openat(root_.get(), ".", kFolderFlags));
  if (!current) throw MirrorPathError::unusableRoot(path_.string(), errno);
  for (std::size_t i = 0; i < count; ++i) {
    const char* name = components[i].c_str();
    Fd next(::openat(current.get(), name, kFolderFlags));
    if (!next && errno == ENOENT && create) {
      if (::mkdirat(current.get(), name, 0777) != 0 && errno != EEXIST) {
        throw MirrorPathError::systemError(prefixOf(components, i + 1), "create the folder", errno);
      }
      next = Fd(::openat(current.get(), name, kFolderFlags));
    }
    if (!next) {
      const int code = errno;
      if (code == ENOENT) return Fd();
      // ELOOP (a link, refused by O_NOFOLLOW) and ENOTDIR say what was
      // there only roughly; ask without following anything.
      struct stat status;
      if (::fstatat(current.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(status.st_mode)) {
          throw MirrorPathError::symbolicLink(std::string(path), prefixOf(components, i + 1));
        }
        if (!S_ISDIR(status.st_mode)) {
          throw MirrorPathError::notDirectory(std::string(path), prefixOf(components, i + 1));
        }
      }
      throw MirrorPathError::systemError(prefixOf(components, i + 1), "open the folder", code);
    }
    current = std::move(next);
  }
  return current;
}

MirrorRoot::Fd MirrorRoot::openStaging(bool create) const {
  const std::string name(stagingFolderName);
  Fd folder(::openat(root_.get(), name.c_str(), kFolderFlags));
  if (!folder && errno == ENOENT && create) {
    if (::mkdirat(root_.get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
      throw MirrorPathError::systemError(name, "create the folder", errno);
    }
    folder = Fd(::openat(root_.get(), name.c_str(), kFolderFlags));
  }
  if (!folder && errno != ENOENT) {
    const int code = errno;
    struct stat status;
    if (::fstatat(root_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
      if (S_ISLNK(status.st_mode)) throw MirrorPathError::symbolicLink(name, name);
      if (!S_ISDIR(status.st_mode)) throw MirrorPathError::notDirectory(name, name);
    }
    throw MirrorPathError::systemError(name, "open the folder", code);
  }
  return folder;
}

FileState MirrorRoot::stat(std::string_view relative) const {
  struct stat status;
  if (relative.empty()) {
    if (::fstat(root_.get(), &status) != 0) {
      throw MirrorPathError::unusableRoot(path_.string(), errno);
    }
    return stateOf(status);
  }
  auto components = componentsOf(relative);
  Fd parent = openFolder(relative, components, components.size() - 1, false);
  if (!parent) return FileState{};
  if (::fstatat(parent.get(), components.back().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return FileState{};
    throw MirrorPathError::systemError(std::string(relative), "inspect", errno);
  }
  return stateOf(status);
}

void MirrorRoot::ensureDirectory(std::string_view relative) {
  auto components = componentsOf(relative);
  openFolder(relative, components, components.size(), true);
}

MirrorRoot::StagedFile MirrorRoot::stage() {
  Fd folder = openStaging(true);
  for (;;) {
    std::string name = randomName();
    name += kStagedSuffix;
    Fd file(::openat(folder.get(), name.c_str(),
                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (file) return StagedFile(*this, std::move(folder), std::move(file), std::move(name));
    if (errno != EEXIST) {
      throw MirrorPathError::systemError(std::string(stagingFolderName), "create a staged file in",
                                         errno);
    }
  }
}

void MirrorRoot::rename(std::string_view from, std::string_view to) {
  auto fromComponents = componentsOf(from);
  auto toComponents = componentsOf(to);
  if (fromComponents.empty() || toComponents.empty()) {
    throw MirrorPathError::invalidPath(std::string(fromComponents.empty() ? from : to));
  }
  Fd fromParent = openFolder(from, fromComponents, fromComponents.size() - 1, false);
  if (!fromParent) throw synckit::FileNotFoundError(std::string(from));
  Fd toParent = openFolder(to, toComponents, toComponents.size() - 1, true);
  if (renameWithoutReplacing(fromParent.get(), fromComponents.back().c_str(), toParent.get(),
                             toComponents.back().c_str()) != 0) {
    if (errno == EEXIST || errno == ENOTEMPTY)
      throw MirrorPathError::alreadyExists(std::string(to));
    if (errno == ENOENT) throw synckit::FileNotFoundError(std::string(from));
    throw MirrorPathError::systemError(std::string(from), "move", errno);
  }
  syncFolder(toParent.get(), to);
  if (fromComponents.size() != toComponents.size() ||
      !std::equal(fromComponents.begin(), fromComponents.end() - 1, toComponents.begin())) {
    syncFolder(fromParent.get(), from);
  }
}

std::string MirrorRoot::park(std::string_view relative) {
  auto components = componentsOf(relative);
  if (components.empty()) throw MirrorPathError::invalidPath(std::string(relative));
  Fd parent = openFolder(relative, components, components.size() - 1, false);
  if (!parent) throw synckit::FileNotFoundError(std::string(relative));
  Fd staging = openStaging(true);
  for (;;) {
    std::string name(kParkedPrefix);
    name += randomName();
    if (renameWithoutReplacing(parent.get(), components.back().c_str(), staging.get(),
                               name.c_str()) == 0) {
      return name;
    }
    if (errno == EEXIST || errno == ENOTEMPTY) continue;
    if (errno == ENOENT) throw synckit::FileNotFoundError(std::string(relative));
    throw MirrorPathError::systemError(std::string(relative), "move aside", errno);
  }
}

void MirrorRoot::unpark(std::string_view parkedName, std::string_view to) {
  if (!parkedName.starts_with(kParkedPrefix) || parkedName.find('/') != std::string_view::npos ||
      parkedName.find('\0') != std::string_view::npos) {
    throw MirrorPathError::invalidPath(std::string(parkedName));
  }
  auto components = componentsOf(to);
  if (components.empty()) throw MirrorPathError::invalidPath(std::string(to));
  Fd staging = openStaging(false);
  if (!staging) throw synckit::FileNotFoundError(std::string(parkedName));
  Fd parent = openFolder(to, components, components.size() - 1, true);
  const std::string name(parkedName);
  if (renameWithoutReplacing(staging.get(), name.c_str(), parent.get(),
                             components.back().c_str()) != 0) {
    if (errno == EEXIST || errno == ENOTEMPTY)
      throw MirrorPathError::alreadyExists(std::string(to));
    if (errno == ENOENT) throw synckit::FileNotFoundError(name);
    throw MirrorPathError::systemError(std::string(to), "move back into place", errno);
  }
  syncFolder(parent.get(), to);
}

synckit::Bytes MirrorRoot::read(std::string_view relative, std::size_t maxBytes) const {
  auto components = componentsOf(relative);
  if (components.empty()) throw MirrorPathError::invalidPath(std::string(relative));
  Fd parent = openFolder(relative, components, components.size() - 1, false);
  if (!parent) throw synckit::FileNotFoundError(std::string(relative));
  // O_NONBLOCK keeps a FIFO in the file's place from blocking the open.
  Fd file(::openat(parent.get(), components.back().c_str(),
                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) throw synckit::FileNotFoundError(std::string(relative));
    if (errno == ELOOP) {
      throw MirrorPathError::symbolicLink(std::string(relative), std::string(relative));
    }
    throw MirrorPathError::systemError(std::string(relative), "read", errno);
  }
  struct stat status;
  if (::fstat(file.get(), &status) != 0) {
    throw MirrorPathError::systemError(std::string(relative), "read", errno);
  }
  if (!S_ISREG(status.st_mode)) throw MirrorPathError::notRegularFile(std::string(relative));
  synckit::Bytes content(std::min<std::size_t>(maxBytes, static_cast<std::size_t>(status.st_size)));
  std::size_t done = 0;
  while (done < content.size()) {
    ssize_t n = ::read(file.get(), content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw MirrorPathError::systemError(std::string(relative), "read", errno);
    if (n == 0) break;  // shrank meanwhile
    done += static_cast<std::size_t>(n);
  }
  content.resize(done);
  return content;
}

std::vector<std::string> MirrorRoot::removeStaging() {
  std::vector<std::string> left;
  Fd staging = openStaging(false);
  if (!staging) return left;
  const std::string stagingName(stagingFolderName);
  Fd listed(::dup(staging.get()));
  if (!listed) throw MirrorPathError::systemError(stagingName, "list", errno);
  for (const std::string& name : namesIn(std::move(listed), stagingName)) {
    struct stat status;
    const bool staged = name.ends_with(kStagedSuffix) &&
                        ::fstatat(staging.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                        !S_ISDIR(status.st_mode);
    if (!staged) {
      left.push_back(name);
    } else if (::unlinkat(staging.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
      throw MirrorPathError::systemError(stagingName + "/" + name, "remove", errno);
    }
  }
  return left;
}

std::vector<std::string> MirrorRoot::list(std::string_view relative) const {
  auto components = componentsOf(relative);
  Fd folder = openFolder(relative, components, components.size(), false);
  if (!folder) throw synckit::FileNotFoundError(std::string(relative));
  auto names = namesIn(std::move(folder), relative);
  if (relative.empty()) std::erase(names, stagingFolderName);
  return names;
}

MirrorRoot::Fd MirrorRoot::openDirectory(std::string_view relative) const {
  auto components = componentsOf(relative);
  return openFolder(relative, components, components.size(), false);
}

MirrorRoot::Fd MirrorRoot::openParent(std::string_view relative, std::string& lastComponent) const {
  auto components = componentsOf(relative);
  if (components.empty()) throw MirrorPathError::invalidPath(std::string(relative));
  Fd parent = openFolder(relative, components, components.size() - 1, false);
  if (!parent) throw synckit::FileNotFoundError(std::string(relative));
  lastComponent = std::move(components.back());
  return parent;
}

MirrorRoot::StagedFile::StagedFile(const MirrorRoot& root, Fd directory, Fd file, std::string name)
    : root_(&root),
      directory_(std::move(directory)),
      file_(std::move(file)),
      name_(std::move(name)) {}

MirrorRoot::StagedFile& MirrorRoot::StagedFile::operator=(StagedFile&& other) noexcept {
  if (this != &other) {
    discard();
    root_ = other.root_;
    directory_ = std::move(other.directory_);
    file_ = std::move(other.file_);
    name_ = std::move(other.name_);
    size_ = other.size_;
    flushed_ = other.flushed_;
  }
  return *this;
}

MirrorRoot::StagedFile::~StagedFile() { discard(); }

void MirrorRoot::StagedFile::discard() noexcept {
  // A moved-from or committed file has no descriptor left.
  if (file_ && directory_) ::unlinkat(directory_.get(), name_.c_str(), 0);
  file_ = Fd();
}

void MirrorRoot::StagedFile::write(std::span<const std::uint8_t> data) {
  if (!file_) throw std::logic_error("write to a staged file that was already committed");
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(file_.get(), data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      throw MirrorPathError::systemError(std::string(stagingFolderName) + "/" + name_, "write",
                                         errno);
    }
    done += static_cast<std::size_t>(n);
  }
  size_ += static_cast<std::int64_t>(data.size());
  if (!data.empty()) flushed_ = false;
}

void MirrorRoot::StagedFile::flush() {
  if (!file_) throw std::logic_error("flush of a staged file that was already committed");
  if (flushed_) return;
  if (::fsync(file_.get()) != 0) {
    throw MirrorPathError::systemError(std::string(stagingFolderName) + "/" + name_, "flush",
                                       errno);
  }
  flushed_ = true;
}

FileState MirrorRoot::StagedFile::commit(std::string_view relative, FolderFlush folderFlush) {
  if (!file_) throw std::logic_error("commit of a staged file that was already committed");
  auto components = componentsOf(relative);
  if (components.empty()) throw MirrorPathError::invalidPath(std::string(relative));
  flush();
  Fd parent = root_->openFolder(relative, components, components.size() - 1, true);
  synckit::crashPoint();
  if (::renameat(directory_.get(), name_.c_str(), parent.get(), components.back().c_str()) != 0) {
    throw MirrorPathError::systemError(std::string(relative), "put the downloaded file at", errno);
  }
  // From here the file is the final one: never unlink it by its staged name.
  Fd file = std::move(file_);
  if (folderFlush == FolderFlush::now) syncFolder(parent.get(), relative);
  struct stat status;
  if (::fstat(file.get(), &status) != 0) {
    throw MirrorPathError::systemError(std::string(relative), "inspect", errno);
  }
  return stateOf(status);
}

void MirrorRoot::flushFileSystem() const {
  if (::syncfs(root_.get()) != 0) {
    throw MirrorPathError::systemError(".", "flush the file system of", errno);
  }
}

}  // namespace halvark::provider
