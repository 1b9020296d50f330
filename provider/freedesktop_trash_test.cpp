#include "provider/freedesktop_trash.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>

#include "provider/mirror_path_error.h"
#include "provider/testing/file_contents.h"
#include "synckit/base/error.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark::provider {
namespace {

using synckit::toBytes;
using synckit::testing::entryNames;
using synckit::testing::ScopedEnvironment;
using synckit::testing::TemporaryDirectory;
namespace fs = std::filesystem;

using testing::contentOf;

void writeFile(MirrorRoot& mirror, std::string_view path, std::string_view content) {
  auto staged = mirror.stage();
  staged.write(toBytes(content));
  staged.commit(path);
}

TEST(FreedesktopTrashTest, FilesAndFoldersMoveToTheHomeTrashWithTheirRecords) {
  TemporaryDirectory temp;
  ScopedEnvironment environment;
  environment.set("XDG_DATA_HOME", (temp / "data").string());
  MirrorRoot mirror(temp / "Mirror");
  FreedesktopTrash trash(mirror);
  EXPECT_EQ(trash.directory(), temp / "data" / "Trash");
  EXPECT_FALSE(fs::exists(trash.directory()));  // made on first use

  writeFile(mirror, "B/f\u00fcr/a b.md", "first");
  writeFile(mirror, "B/f\u00fcr/sub/c.md", "child");
  auto trashed = trash.trash("B/f\u00fcr/a b.md");
  EXPECT_EQ(trashed, trash.directory() / "files" / "a b.md");
  EXPECT_EQ(contentOf(trashed), "first");
  EXPECT_FALSE(mirror.stat("B/f\u00fcr/a b.md").exists);
  const std::string record = contentOf(trash.directory() / "info" / "a b.md.trashinfo");
  EXPECT_TRUE(std::regex_match(
      record, std::regex("\\[Trash Info\\]\nPath=" + (temp / "Mirror").string() +
                         "/B/f%C3%BCr/a%20b\\.md\n"
                         "DeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n")))
      << record;

  // The same name again, and a name whose files entry lost its record.
  writeFile(mirror, "B/f\u00fcr/a b.md", "second");
  EXPECT_EQ(trash.trash("B/f\u00fcr/a b.md"), trash.directory() / "files" / "a b.md.2");
  std::ofstream(trash.directory() / "files" / "a b.md.3") << "stray";
  writeFile(mirror, "B/a b.md", "third");
  EXPECT_EQ(trash.trash("B/a b.md"), trash.directory() / "files" / "a b.md.4");
  EXPECT_EQ(contentOf(trash.directory() / "files" / "a b.md.3"), "stray");

  // A folder goes whole.
  EXPECT_EQ(trash.trash("B/f\u00fcr"), trash.directory() / "files" / "f\u00fcr");
  EXPECT_EQ(contentOf(trash.directory() / "files" / "f\u00fcr" / "sub" / "c.md"), "child");
  EXPECT_EQ(mirror.list("B"), std::vector<std::string>{});

  // Failures leave no record behind and nothing moved.
  EXPECT_THROW(trash.trash("B/gone.md"), synckit::FileNotFoundError);
  fs::create_directory_symlink(temp / "data", mirror.path() / "B" / "link");
  EXPECT_THROW(trash.trash("B/link/Trash"), MirrorPathError);
  EXPECT_THROW(trash.trash("a/../../x"), MirrorPathError);
  EXPECT_EQ(entryNames(trash.directory() / "info"),
            (std::set<std::string>{"a b.md.trashinfo", "a b.md.2.trashinfo", "a b.md.4.trashinfo",
                                   "f\u00fcr.trashinfo"}));
  EXPECT_TRUE(fs::is_directory(temp / "data" / "Trash" / "files"));
}

}  // namespace
}  // namespace halvark::provider
