#include "provider/freedesktop_trash.h"

#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "provider/mirror_path_error.h"
#include "synckit/base/crash_point.h"
#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"

namespace halvark::provider {
namespace {

constexpr std::string_view kInfoSuffix = ".trashinfo";
// Room for ".<number>" and ".trashinfo" within one path component.
constexpr std::size_t kMaxBaseName = NAME_MAX - kInfoSuffix.size() - 12;

std::filesystem::path homeDataDirectory() {
  if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data == '/') return data;
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') {
    const passwd* entry = ::getpwuid(::getuid());
    if (entry == nullptr || entry->pw_dir == nullptr) throw synckit::PosixError(ENOENT);
    home = entry->pw_dir;
  }
  return std::filesystem::path(home) / ".local/share";
}

// The device of `path`, or of its nearest ancestor that exists.
dev_t deviceOf(std::filesystem::path path) {
  for (;;) {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0) return status.st_dev;
    if (path == path.parent_path()) throw synckit::PosixError(errno);
    path = path.parent_path();
  }
}

// The top of the file system holding `path` (an existing absolute path
// without links): the last ancestor still on the same device.
std::filesystem::path mountPointOf(const std::filesystem::path& path, dev_t device) {
  std::filesystem::path top = path;
  while (top != top.parent_path()) {
    struct stat status;
    if (::stat(top.parent_path().c_str(), &status) != 0 || status.st_dev != device) break;
    top = top.parent_path();
  }
  return top;
}

// RFC 3986 escaping of a file path, leaving "/" and unreserved characters.
std::string percentEncoded(const std::string& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (unsigned char c : path) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' ||
        c == '-' || c == '.' || c == '_' || c == '~') {
      encoded += static_cast<char>(c);
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 0xF];
    }
  }
  return encoded;
}

std::string localDeletionDate() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
  return text;
}

// `name` cut to at most `bytes` bytes without splitting a UTF-8 sequence.
std::string shortened(const std::string& name, std::size_t bytes) {
  if (name.size() <= bytes) return name;
  std::size_t end = bytes;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
  return name.substr(0, end);
}

[[noreturn]] void failTrash(const std::filesystem::path& where, int code) {
  const char* reason = strerrordesc_np(code);
  throw synckit::Error("The trash folder \u201c" + where.string() +
                       "\u201d cannot be used: " + (reason ? reason : "Unknown error") + ".");
}

// Opens (making it 0700 when missing) the folder `name` inside `parent`,
// refusing a link or anything that is not a folder of this user.
MirrorRoot::Fd openTrashFolder(int parent, const char* name, const std::filesystem::path& path) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  MirrorRoot::Fd folder(::openat(parent, name, kFlags));
  if (!folder && errno == ENOENT) {
    if (::mkdirat(parent, name, 0700) != 0 && errno != EEXIST) failTrash(path, errno);
    folder = MirrorRoot::Fd(::openat(parent, name, kFlags));
  }
  if (!folder) failTrash(path, errno);
  struct stat status;
  if (::fstat(folder.get(), &status) != 0) failTrash(path, errno);
  if (status.st_uid != ::geteuid()) failTrash(path, EPERM);
  return folder;
}

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw synckit::PosixError(errno);
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

FreedesktopTrash::FreedesktopTrash(MirrorRoot& mirror)
    : mirror_(mirror), mirrorPath_(std::filesystem::absolute(mirror.path())) {
  const auto device = static_cast<dev_t>(mirror_.device());
  const std::filesystem::path home = homeDataDirectory() / "Trash";
  if (deviceOf(home) == device) {
    directory_ = home;
    return;
  }
  // Off the home file system a rename into the home trash would fail (and a
  // copy could leave half an item behind), so the trash of that file system
  // is used instead.
  atTopOfFileSystem_ = true;
  const auto top = mountPointOf(std::filesystem::canonical(mirrorPath_), device);
  directory_ = top / (".Trash-" + std::to_string(::getuid()));
}

std::filesystem::path FreedesktopTrash::trash(std::string_view relative) {
  std::string last;
  MirrorRoot::Fd parent = mirror_.openParent(relative, last);

  MirrorRoot::Fd trashFolder;
  if (atTopOfFileSystem_) {
    MirrorRoot::Fd top(
        ::open(directory_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!top) failTrash(directory_, errno);
    trashFolder = openTrashFolder(top.get(), directory_.filename().c_str(), directory_);
  } else {
    try {
      synckit::AtomicFile::createDirectories(directory_, 0700);
    } catch (const synckit::PosixError& error) {
      failTrash(directory_, error.code());
    }
    trashFolder = MirrorRoot::Fd(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!trashFolder) failTrash(directory_, errno);
  }
  MirrorRoot::Fd files = openTrashFolder(trashFolder.get(), "files", directory_ / "files");
  MirrorRoot::Fd info = openTrashFolder(trashFolder.get(), "info", directory_ / "info");

  const std::string record =
      "[Trash Info]\nPath=" + percentEncoded((mirrorPath_ / std::string(relative)).string()) +
      "\nDeletionDate=" + localDeletionDate() + "\n";
  const std::string base = shortened(last, kMaxBaseName);
  for (int number = 1;; ++number) {
    const std::string name = number == 1 ? base : base + "." + std::to_string(number);
    const std::string infoName = name + std::string(kInfoSuffix);
    MirrorRoot::Fd infoFile(::openat(info.get(), infoName.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!infoFile) {
      if (errno == EEXIST) continue;
      failTrash(directory_ / "info", errno);
    }
    auto dropInfo = [&] { ::unlinkat(info.get(), infoName.c_str(), 0); };
    try {
      writeAll(infoFile.get(), record);
      if (::fsync(infoFile.get()) != 0) throw synckit::PosixError(errno);
    } catch (const synckit::PosixError& error) {
      dropInfo();
      failTrash(directory_ / "info", error.code());
    }
    synckit::crashPoint();
    if (MirrorRoot::renameWithoutReplacing(parent.get(), last.c_str(), files.get(), name.c_str()) !=
        0) {
      const int code = errno;
      dropInfo();
      // A file left in "files" without its record still owns its name.
      if (code == EEXIST || code == ENOTEMPTY) continue;
      if (code == ENOENT) throw synckit::FileNotFoundError(std::string(relative));
      throw MirrorPathError::systemError(std::string(relative), "move to the trash", code);
    }
    ::fsync(files.get());
    ::fsync(parent.get());
    return directory_ / "files" / name;
  }
}

}  // namespace halvark::provider
