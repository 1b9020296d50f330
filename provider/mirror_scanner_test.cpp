#include "provider/mirror_scanner.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "provider/mirror_root.h"
#include "provider/testing/print_local_change.h"
#include "synckit/base/crypto.h"
#include "synckit/store/local_index.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark::provider {

namespace {

namespace fs = std::filesystem;
using Kind = LocalChange::Kind;
using synckit::testing::TemporaryDirectory;

LocalChange written(std::string path) { return {Kind::written, std::move(path), {}, false}; }
LocalChange madeFolder(std::string path) { return {Kind::madeFolder, std::move(path), {}, true}; }
LocalChange removed(std::string path, bool isDirectory) {
  return {Kind::removed, std::move(path), {}, isDirectory};
}
LocalChange moved(std::string from, std::string to, bool isDirectory) {
  return {Kind::moved, std::move(to), std::move(from), isDirectory};
}

// A mirror with one brain folder, "Brain", and an index of what the
// provider put there.
class MirrorScannerTest : public ::testing::Test {
 protected:
  void write(const std::string& path, const std::string& content) {
    fs::create_directories((mirror.path() / path).parent_path());
    std::ofstream(mirror.path() / path, std::ios::binary | std::ios::trunc) << content;
  }

  // Puts an item on disk and indexes it as the provider would.
  void provide(const std::string& path, const std::optional<std::string>& content) {
    if (content) {
      write(path, *content);
    } else {
      fs::create_directories(mirror.path() / path);
    }
    const FileState state = mirror.stat(path);
    index.put({brain, "node-" + path, path, !content, 1, state.size, state.mtimeNanoseconds,
               state.inode,
               content ? synckit::hexLower(synckit::sha256(std::string_view(*content))) : ""});
  }

  std::vector<LocalChange> scan() {
    return MirrorScanner::scan(mirror, index, [&](const std::string& path, const std::string& why) {
      EXPECT_FALSE(why.empty());
      ++unsupported[path];
    });
  }

  TemporaryDirectory temp;
  MirrorRoot mirror{temp / "mirror"};
  synckit::LocalIndex index{temp / "index.sqlite"};
  synckit::Uuid brain = *synckit::Uuid::parse("589F1BA3-EF48-410A-B027-B56623343ADD");
  std::map<std::string, int> unsupported;
};

TEST_F(MirrorScannerTest, FindsEditsNewItemsMovesAndRemovalsInAnOrderThatApplies) {
  index.setBrainFolder(brain, "Brain");
  for (const char* file : {"same.md", "touched.md", "replaced.md", "edited.md", "gone.md",
                           "renamed.md", "m.md", "old/a.md", "old/sub/b.md", "box/x.md",
                           "box/deep/y.md", "target/t.md", "keep/k.md", "out.md"}) {
    provide(std::string("Brain/") + file, std::string("content of ") + file);
  }
  for (const char* folder : {"old", "old/sub", "box", "box/deep", "target", "keep"}) {
    provide(std::string("Brain/") + folder, std::nullopt);
  }
  const fs::path root = mirror.path();
  ASSERT_TRUE(scan().empty());

  // Same bytes: touched, or saved again through a new file.
  fs::last_write_time(root / "Brain/touched.md",
                      fs::last_write_time(root / "Brain/touched.md") + std::chrono::hours(1));
  fs::remove(root / "Brain/replaced.md");
  write("Brain/replaced.md", "content of replaced.md");
  // New bytes of the same size.
  write("Brain/edited.md", "CONTENT OF edited.md");
  fs::remove(root / "Brain/gone.md");
  fs::rename(root / "Brain/renamed.md", root / "Brain/renamed2.md");
  // Moved into a folder made meanwhile, then edited (a moved file keeps its
  // inode and its mtime or size; a new file that got a freed inode number
  // has neither).
  fs::create_directory(root / "Brain/new");
  fs::rename(root / "Brain/m.md", root / "Brain/new/m.md");
  write("Brain/new/m.md", "CONTENT OF m.md");
  // A folder moved, one kept out of a removed folder.
  fs::rename(root / "Brain/box", root / "Brain/target/box");
  fs::rename(root / "Brain/old/a.md", root / "Brain/a.md");
  fs::remove_all(root / "Brain/old");
  // A folder made again under its name: its content is compared by path.
  fs::rename(root / "Brain/keep", root / "keep-aside");
  fs::create_directory(root / "Brain/keep");
  fs::rename(root / "keep-aside/k.md", root / "Brain/keep/k.md");
  fs::remove(root / "keep-aside");
  write("Brain/new.md", "new");
  write("Brain/newDir/c.md", "c");
  write("top.txt", "at the top");
  // A new folder at the top is the journal's to take whole.
  write("Loose/inner.md", "inner");
  fs::rename(root / "Brain/out.md", root / "Loose/out.md");
  // Never reported as changes.
  write("Brain/.DS_Store", "desktop metadata");
  write(".halvark-staging/0123.partial", "a download");
  write("Brain/.notes.md.swp", "an editor's swap file");
  fs::create_directory(root / ".Trash-0");
  fs::create_directory_symlink("/etc", root / "Brain/link");
  ASSERT_EQ(::mkfifo((root / "Brain/pipe").c_str(), 0600), 0);

  const std::vector<LocalChange> expected{
      moved("Brain/old/a.md", "Brain/a.md", false),
      madeFolder("Brain/new"),
      moved("Brain/m.md", "Brain/new/m.md", false),
      moved("Brain/renamed.md", "Brain/renamed2.md", false),
      moved("Brain/box", "Brain/target/box", true),
      removed("Brain/gone.md", false),
      removed("Brain/old", true),
      removed("Brain/out.md", false),
      written("Brain/edited.md"),
      written("Brain/new.md"),
      written("Brain/new/m.md"),
      madeFolder("Brain/newDir"),
      written("Brain/newDir/c.md"),
      madeFolder("Loose"),
      written("top.txt"),
  };
  EXPECT_EQ(scan(), expected);
  EXPECT_EQ(unsupported, (std::map<std::string, int>{{"Brain/link", 1}, {"Brain/pipe", 1}}));

  // What was only touched is what the index holds now.
  EXPECT_EQ(index.entryAtPath("Brain/touched.md")->mtimeNanoseconds,
            mirror.stat("Brain/touched.md").mtimeNanoseconds);
  EXPECT_EQ(index.entryAtPath("Brain/replaced.md")->inode, mirror.stat("Brain/replaced.md").inode);
  EXPECT_EQ(index.entryAtPath("Brain/keep")->inode, mirror.stat("Brain/keep").inode);
}

TEST_F(MirrorScannerTest, UnseenItemsStayReusedInodesAreNoMovesAndCirclesStillApply) {
  index.setBrainFolder(brain, "Brain");
  index.setBrainFolder(*synckit::Uuid::parse("11111111-2222-3333-4444-555555555555"), "Gone");
  provide("Brain/parked.md", "parked");
  provide("Brain/locked", std::nullopt);
  provide("Brain/locked/secret.md", "secret");
  provide("Gone/file.md", "in a brain folder that was removed");
  provide("Brain/P", std::nullopt);
  provide("Brain/P/c.md", "child");
  fs::remove_all(mirror.path() / "Gone");
  // The updater parked an item when it stopped.
  mirror.park("Brain/parked.md");
  // A file takes the place of the folder it was in.
  mirror.rename("Brain/P/c.md", "Brain/c.md");
  fs::remove(mirror.path() / "Brain/P");
  mirror.rename("Brain/c.md", "Brain/P");

  // Gone while a new file and a new folder got their inode numbers.
  provide("Brain/gone.md", "gone");
  provide("Brain/goneDir", std::nullopt);
  provide("Brain/goneDir/x.md", "x");
  fs::remove(mirror.path() / "Brain/gone.md");
  fs::remove_all(mirror.path() / "Brain/goneDir");
  write("Brain/fresh.md", "fresh content");
  write("Brain/freshDir/y.md", "why");
  for (const auto& [old, fresh] : {std::pair{"Brain/gone.md", "Brain/fresh.md"},
                                   std::pair{"Brain/goneDir", "Brain/freshDir"}}) {
    auto entry = *index.entryAtPath(old);
    entry.inode = mirror.stat(fresh).inode;
    index.put(entry);
  }

  const bool privileged = ::geteuid() == 0;  // reads anything whatever its mode
  fs::permissions(mirror.path() / "Brain/locked", fs::perms::none);
  if (!privileged) {
    write("Brain/private.md", "not for the scan");
    fs::permissions(mirror.path() / "Brain/private.md", fs::perms::none);
  }
  const auto changes = scan();
  fs::permissions(mirror.path() / "Brain/locked", fs::perms::owner_all);

  // The file that took its folder's place waits for the folder's removal.
  EXPECT_EQ(changes, (std::vector<LocalChange>{
                         removed("Brain/gone.md", false), removed("Brain/goneDir", true),
                         removed("Brain/P", true), written("Brain/P"), written("Brain/fresh.md"),
                         madeFolder("Brain/freshDir"), written("Brain/freshDir/y.md")}));
  if (!privileged) {
    EXPECT_EQ(unsupported,
              (std::map<std::string, int>{{"Brain/locked", 1}, {"Brain/private.md", 1}}));
  }
}

}  // namespace
}  // namespace halvark::provider
