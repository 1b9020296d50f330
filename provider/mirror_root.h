#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "synckit/base/bytes.h"
#include "synckit/platform/provider_paths.h"

namespace halvark::provider {

// What is at a mirror path, seen without following a symbolic link there.
struct FileState {
  bool exists = false;
  bool isRegular = false;
  bool isDirectory = false;
  bool isSymlink = false;
  std::int64_t size = 0;
  std::int64_t mtimeNanoseconds = 0;
  std::uint64_t inode = 0;

  bool operator==(const FileState&) const = default;
};

// The mirror folder, and every file-system operation the provider makes in
// it. Paths are mirror-relative and "/"-separated ("Brain/notes/a.md"). Each
// operation walks from a descriptor of the root, one component at a time,
// with openat and O_NOFOLLOW, so that a symbolic link planted anywhere on
// the way (or a file where a folder should be) makes it throw
// MirrorPathError instead of reaching outside the mirror. A path with an
// empty, "." or ".." component, a NUL byte, or one that starts in the
// staging folder is refused the same way. New content is staged in
// ".halvark-staging" (same file system) and renamed into place, so a reader
// never sees a partial file at a final path.
//
// The root descriptor never changes after construction and every call opens
// its own descriptors, so any thread may call any member at any time, except
// removeStaging(), which is meant for the start, before anything is staged.
class MirrorRoot {
 public:
  // An owned file descriptor, closed when it goes away.
  class Fd {
   public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    ~Fd();
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const noexcept { return fd_; }
    int release() noexcept { return std::exchange(fd_, -1); }
    explicit operator bool() const noexcept { return fd_ >= 0; }

   private:
    int fd_ = -1;
  };

  // New content on its way into the mirror: a file in the staging folder.
  // Written (and flushed) on any thread, committed once; destroyed without
  // a commit, it removes its file. One thread uses an instance at a time.
  class StagedFile {
   public:
    StagedFile(StagedFile&&) noexcept = default;
    StagedFile& operator=(StagedFile&& other) noexcept;
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;
    ~StagedFile();

    void write(std::span<const std::uint8_t> data);
    // Forces the written bytes to disk, so that the commit after it (which
    // otherwise does this itself) is only a rename. Workers call it so that
    // flushes run in parallel rather than in the committing thread.
    void flush();
    // Records that a MirrorRoot::flushFileSystem() after the last write()
    // has put the bytes on disk, so that commit() need not flush the file.
    void flushedWithFileSystem() noexcept { flushed_ = true; }
    std::int64_t size() const noexcept { return size_; }

    // Whether commit() flushes the destination folder itself, or leaves
    // that to a caller committing many files (one flushFileSystem() after
    // the renames, before recording any of them).
    enum class FolderFlush { now, byCaller };

    // Renames the file to `relative` (replacing a file there; missing
    // folders on the way are made), flushes the folder unless told not to,
    // and returns what is now at `relative`. On failure the staged file
    // stays staged.
    FileState commit(std::string_view relative, FolderFlush folderFlush = FolderFlush::now);

   private:
    friend class MirrorRoot;
    StagedFile(const MirrorRoot& root, Fd directory, Fd file, std::string name);
    void discard() noexcept;

    const MirrorRoot* root_;
    Fd directory_;
    Fd file_;
    std::string name_;
    std::int64_t size_ = 0;
    bool flushed_ = false;
  };

  static constexpr std::string_view stagingFolderName = synckit::ProviderPaths::stagingFolderName;
  // How the name of a download being staged ends: such a file is never an
  // item of the mirror, unlike the parked ones beside it.
  static constexpr std::string_view stagedSuffix = ".partial";

  // renameat2 with RENAME_NOREPLACE; on a file system that cannot promise
  // that (EINVAL), a check for the target followed by renameat. 0, or -1
  // with errno set (EEXIST when the target exists).
  static int renameWithoutReplacing(int fromFolder, const char* fromName, int toFolder,
                                    const char* toName);

  // Creates the root (0700, with any missing parents) when missing, then
  // opens it. Throws MirrorPathError when it is not a usable folder.
  explicit MirrorRoot(std::filesystem::path root);
  MirrorRoot(const MirrorRoot&) = delete;
  MirrorRoot& operator=(const MirrorRoot&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  // The device the root lives on (st_dev).
  std::uint64_t device() const;

  // lstat of `relative` ("" is the root); exists is false when it, or a
  // folder on the way, is absent.
  FileState stat(std::string_view relative) const;
  // Makes `relative` and every missing folder on the way ("" is the root).
  void ensureDirectory(std::string_view relative);

  StagedFile stage();
  // Puts everything written on the mirror's file system on disk (syncfs):
  // one flush for a whole batch of staged files instead of one each.
  void flushFileSystem() const;

  // Moves `from` to `to`, making missing folders on the way to `to`. Never
  // replaces: throws MirrorPathError (alreadyExists) when `to` exists, and
  // FileNotFoundError when `from` does not.
  void rename(std::string_view from, std::string_view to);

  // Moves `relative` aside into the staging folder under a fresh name,
  // returned, so that two items can swap places. unpark() moves it back out
  // to `to`, never replacing. After a crash, parked items are among what
  // removeStaging() leaves.
  std::string park(std::string_view relative);
  void unpark(std::string_view parkedName, std::string_view to);

  // The first `maxBytes` bytes of the regular file `relative`. Throws
  // FileNotFoundError when it is absent, MirrorPathError when it is a
  // symbolic link or not a regular file.
  synckit::Bytes read(std::string_view relative, std::size_t maxBytes) const;

  // Removes the staged files a crash left behind; returns the names of the
  // other entries there (parked items), which it leaves alone.
  std::vector<std::string> removeStaging();

  // The names in the folder `relative` ("" is the root, without the staging
  // folder), sorted. Throws FileNotFoundError when it is absent.
  std::vector<std::string> list(std::string_view relative) const;

  // A descriptor of the folder `relative` ("" is the root), reached like
  // every other path, for a caller that walks a whole tree with openat;
  // empty when the folder is absent.
  Fd openDirectory(std::string_view relative) const;

  // A descriptor of the folder holding `relative` (opened O_DIRECTORY) and
  // the last component, for moving the item with renameat. Throws
  // FileNotFoundError when that folder is absent.
  Fd openParent(std::string_view relative, std::string& lastComponent) const;

 private:
  // Opens the folder made of the first `count` components of `path`;
  // returns an empty Fd when one is absent and `create` is false.
  Fd openFolder(std::string_view path, const std::vector<std::string>& components,
                std::size_t count, bool create) const;
  Fd openStaging(bool create) const;

  std::filesystem::path path_;
  Fd root_;
};

}  // namespace halvark::provider
