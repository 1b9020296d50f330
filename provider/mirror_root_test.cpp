#include "provider/mirror_root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <set>

#include "provider/mirror_path_error.h"
#include "provider/testing/file_contents.h"
#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace halvark::provider {
namespace {

using synckit::toBytes;
using synckit::testing::entryNames;
using synckit::testing::TemporaryDirectory;
using synckit::testing::thrownBy;
namespace fs = std::filesystem;

using testing::contentOf;

MirrorPathError::Reason reasonOf(auto&& call) { return thrownBy<MirrorPathError>(call).reason(); }

TEST(MirrorRootTest, StagedFilesAppearOnlyWhenCommittedAndVanishWhenDropped) {
  TemporaryDirectory temp;
  MirrorRoot mirror(temp / "Mirror" / "inner");
  EXPECT_EQ(fs::status(mirror.path()).permissions() & fs::perms::all, fs::perms::owner_all);

  auto staged = mirror.stage();
  staged.write(toBytes("hello "));
  staged.write(toBytes("world"));
  staged.flush();
  EXPECT_FALSE(mirror.stat("Brain/a/b.md").exists);
  auto state = staged.commit("Brain/a/b.md");  // the folders on the way are made
  EXPECT_EQ(contentOf(mirror.path() / "Brain/a/b.md"), "hello world");
  EXPECT_EQ(state, mirror.stat("Brain/a/b.md"));
  EXPECT_TRUE(state.isRegular);
  EXPECT_EQ(state.size, 11);
  EXPECT_TRUE(mirror.stat("Brain/a").isDirectory);
  EXPECT_EQ(mirror.read("Brain/a/b.md", 5), toBytes("hello"));
  EXPECT_THROW(staged.commit("Brain/again.md"), std::logic_error);

  // A commit replaces the file that is there; an empty file is a file too.
  auto empty = mirror.stage();
  EXPECT_EQ(empty.commit("Brain/a/b.md").size, 0);
  EXPECT_EQ(contentOf(mirror.path() / "Brain/a/b.md"), "");

  {
    auto dropped = mirror.stage();
    dropped.write(toBytes("never seen"));
    auto moved = std::move(dropped);
    EXPECT_EQ(entryNames(mirror.path() / MirrorRoot::stagingFolderName).size(), 1u);
  }
  EXPECT_TRUE(entryNames(mirror.path() / MirrorRoot::stagingFolderName).empty());
  EXPECT_EQ(mirror.list(""), std::vector<std::string>{"Brain"});
  EXPECT_EQ(mirror.list("Brain/a"), std::vector<std::string>{"b.md"});
  EXPECT_THROW(mirror.list("Brain/none"), synckit::FileNotFoundError);
  EXPECT_THROW(mirror.read("Brain/none.md", 10), synckit::FileNotFoundError);
  EXPECT_EQ(reasonOf([&] { mirror.read("Brain/a", 10); }), MirrorPathError::Reason::notRegularFile);

  // After a crash: staged files go, parked items stay and are reported.
  mirror.ensureDirectory("Brain/c");
  auto leftover = mirror.stage();
  leftover.write(toBytes("partial"));
  const std::string parked = mirror.park("Brain/c");
  EXPECT_FALSE(mirror.stat("Brain/c").exists);
  EXPECT_EQ(mirror.removeStaging(), std::vector<std::string>{parked});
  mirror.unpark(parked, "Brain/d");
  EXPECT_TRUE(mirror.stat("Brain/d").isDirectory);
  EXPECT_TRUE(entryNames(mirror.path() / MirrorRoot::stagingFolderName).empty());
}

TEST(MirrorRootTest, RenamesNeverReplaceAndMakeTheTargetFolders) {
  TemporaryDirectory temp;
  MirrorRoot mirror(temp.path());
  mirror.stage().commit("B/one.md");
  mirror.stage().commit("B/two.md");
  mirror.ensureDirectory("B/folder/inner");

  mirror.rename("B/one.md", "B/new/place/one.md");
  EXPECT_FALSE(mirror.stat("B/one.md").exists);
  EXPECT_TRUE(mirror.stat("B/new/place/one.md").isRegular);

  auto refused =
      thrownBy<MirrorPathError>([&] { mirror.rename("B/two.md", "B/new/place/one.md"); });
  EXPECT_EQ(refused.reason(), MirrorPathError::Reason::alreadyExists);
  EXPECT_EQ(refused.path(), "B/new/place/one.md");
  EXPECT_TRUE(mirror.stat("B/two.md").exists);  // nothing moved
  EXPECT_EQ(reasonOf([&] { mirror.rename("B/two.md", "B/folder"); }),
            MirrorPathError::Reason::alreadyExists);
  EXPECT_THROW(mirror.rename("B/gone.md", "B/x.md"), synckit::FileNotFoundError);

  mirror.rename("B/folder", "B/moved");
  EXPECT_TRUE(mirror.stat("B/moved/inner").isDirectory);
  EXPECT_EQ(reasonOf([&] { mirror.ensureDirectory("B/two.md/sub"); }),
            MirrorPathError::Reason::notDirectory);
}

TEST(MirrorRootTest, InvalidPathsAndLinksOnTheWayAreRefusedAndNothingLeavesTheMirror) {
  TemporaryDirectory temp;
  const fs::path outside = temp / "outside";
  fs::create_directories(outside);
  std::ofstream(outside / "secret.md") << "outside";
  MirrorRoot mirror(temp / "mirror");
  mirror.stage().commit("B/kept.md");
  // A link planted as a folder on the way, and one as the final item.
  fs::create_directory_symlink(outside, mirror.path() / "B" / "link");
  fs::create_symlink(outside / "secret.md", mirror.path() / "B" / "file-link.md");

  for (std::string_view invalid :
       std::vector<std::string_view>{"", "/B/x", "B//x", "B/./x", "a/../../escape", "B/x/",
                                     std::string_view("B/\0x", 4), ".halvark-staging/x"}) {
    SCOPED_TRACE(std::string(invalid));
    EXPECT_EQ(reasonOf([&] { mirror.stage().commit(invalid); }),
              MirrorPathError::Reason::invalidPath);
    EXPECT_EQ(reasonOf([&] { mirror.rename("B/kept.md", invalid); }),
              MirrorPathError::Reason::invalidPath);
  }
  EXPECT_EQ(reasonOf([&] { mirror.stat("a/../../escape"); }), MirrorPathError::Reason::invalidPath);

  auto viaLink = thrownBy<MirrorPathError>([&] { mirror.stage().commit("B/link/new.md"); });
  EXPECT_EQ(viaLink.reason(), MirrorPathError::Reason::symbolicLink);
  EXPECT_EQ(viaLink.where(), "B/link");
  EXPECT_EQ(viaLink.description(),
            "\u201cB/link/new.md\u201d in the mirror folder passes through a symbolic link at "
            "\u201cB/link\u201d.");
  EXPECT_EQ(reasonOf([&] { mirror.rename("B/kept.md", "B/link/kept.md"); }),
            MirrorPathError::Reason::symbolicLink);
  EXPECT_EQ(reasonOf([&] { mirror.rename("B/link/secret.md", "B/stolen.md"); }),
            MirrorPathError::Reason::symbolicLink);
  EXPECT_EQ(reasonOf([&] { mirror.ensureDirectory("B/link/sub"); }),
            MirrorPathError::Reason::symbolicLink);
  EXPECT_EQ(reasonOf([&] { mirror.stat("B/link/secret.md"); }),
            MirrorPathError::Reason::symbolicLink);
  EXPECT_EQ(reasonOf([&] { mirror.read("B/link/secret.md", 100); }),
            MirrorPathError::Reason::symbolicLink);
  EXPECT_EQ(reasonOf([&] { mirror.read("B/file-link.md", 100); }),
            MirrorPathError::Reason::symbolicLink);
  EXPECT_EQ(reasonOf([&] { mirror.list("B/link"); }), MirrorPathError::Reason::symbolicLink);
  std::string last;
  EXPECT_EQ(reasonOf([&] { mirror.openParent("B/link/secret.md", last); }),
            MirrorPathError::Reason::symbolicLink);

  // A link as the last component is seen, not followed; committing over
  // it replaces the link itself.
  EXPECT_TRUE(mirror.stat("B/link").isSymlink);
  auto staged = mirror.stage();
  staged.write(toBytes("mine"));
  staged.commit("B/file-link.md");
  EXPECT_EQ(contentOf(mirror.path() / "B/file-link.md"), "mine");

  // The staging folder itself replaced by a link is refused too.
  fs::remove_all(mirror.path() / MirrorRoot::stagingFolderName);
  fs::create_directory_symlink(outside, mirror.path() / MirrorRoot::stagingFolderName);
  EXPECT_EQ(reasonOf([&] { mirror.stage(); }), MirrorPathError::Reason::symbolicLink);

  EXPECT_EQ(entryNames(outside), std::set<std::string>{"secret.md"});
  EXPECT_EQ(contentOf(outside / "secret.md"), "outside");
  EXPECT_FALSE(fs::exists(temp / "escape"));
}

}  // namespace
}  // namespace halvark::provider
