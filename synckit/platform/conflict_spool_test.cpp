#include "synckit/platform/conflict_spool.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <set>

#include "synckit/base/error.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::entryNames;
using testing::TemporaryDirectory;
using testing::thrownBy;

TEST(ConflictSpoolTest, EntriesRoundTripAndMissingOnesAreAbsent) {
  TemporaryDirectory temp;
  ConflictSpool spool{temp / "Library" / "Spool"};

  EXPECT_EQ(spool.read("edit-1"), std::nullopt);
  EXPECT_FALSE(spool.exists("edit-1"));
  EXPECT_NO_THROW(spool.remove("edit-1"));  // missing, and even the directory is

  spool.write(toBytes("first"), "edit-1");
  EXPECT_TRUE(spool.exists("edit-1"));
  EXPECT_EQ(spool.read("edit-1"), toBytes("first"));
  spool.write(Bytes{}, "edit-1");
  EXPECT_EQ(spool.read("edit-1"), Bytes{});

  Bytes binary;
  for (int i = 0; i < 300000; ++i) binary.push_back(static_cast<std::uint8_t>(i * 7));
  spool.write(binary, "node-00ff");
  EXPECT_EQ(spool.read("node-00ff"), binary);
  // Only the entries themselves are left behind; no temporary files.
  EXPECT_EQ(entryNames(spool.directory), (std::set<std::string>{"edit-1", "node-00ff"}));

  spool.remove("edit-1");
  EXPECT_FALSE(spool.exists("edit-1"));
  EXPECT_THROW(spool.write(toBytes("x"), "../escape"), PosixError);
  EXPECT_THROW(spool.read(""), PosixError);
  EXPECT_FALSE(std::filesystem::exists(temp / "Library" / "escape"));
}

TEST(ConflictSpoolTest, AFailedWriteKeepsThePreviousContent) {
  TemporaryDirectory temp;
  ConflictSpool spool{temp / "Spool"};
  spool.write(toBytes("kept"), "edit-3");

  // A file size limit makes the write fail half-way, as a full disk would,
  // and works even for a user whom file modes do not stop.
  ::signal(SIGXFSZ, SIG_IGN);
  ::rlimit previous{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &previous), 0);
  ::rlimit small = previous;
  small.rlim_cur = 1024;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_EQ(thrownBy<PosixError>([&] { spool.write(Bytes(4096, 'x'), "edit-3"); }).code(), EFBIG);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &previous), 0);

  EXPECT_EQ(spool.read("edit-3"), toBytes("kept"));
  EXPECT_EQ(entryNames(spool.directory), (std::set<std::string>{"edit-3"}));

  // A crash between writing a temporary and renaming it leaves the
  // temporary behind; pruning clears it once no write can still own it.
  for (const char* name : {".edit-3.a1B2c3", ".copy-4.zzzzzz", ".notes.txt"}) {
    std::ofstream(spool.directory / name) << "partial";
  }
  auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(2);
  std::filesystem::last_write_time(spool.directory / ".edit-3.a1B2c3", old);
  std::filesystem::last_write_time(spool.directory / ".notes.txt", old);
  spool.prune([](std::int64_t) { return true; }, [](const std::string&) { return true; });
  EXPECT_EQ(entryNames(spool.directory),
            (std::set<std::string>{"edit-3", ".copy-4.zzzzzz", ".notes.txt"}));
}

TEST(ConflictSpoolTest, EditAndCopyOfOneChangeExcludeEachOther) {
  TemporaryDirectory temp;
  ConflictSpool spool{temp / "Spool"};
  EXPECT_EQ(spool.pendingBytes(5), std::nullopt);

  spool.writeNewCopy(toBytes("copy"), 5);
  EXPECT_EQ(spool.pendingBytes(5), toBytes("copy"));
  spool.writeEdit(toBytes("edit"), 5);
  EXPECT_EQ(entryNames(spool.directory), (std::set<std::string>{"edit-5"}));
  EXPECT_EQ(spool.pendingBytes(5), toBytes("edit"));

  spool.writeNewCopy(toBytes("copy again"), 5);
  EXPECT_EQ(entryNames(spool.directory), (std::set<std::string>{"copy-5"}));
  EXPECT_EQ(spool.pendingBytes(5), toBytes("copy again"));

  // Both present (written by an older build): the edit wins.
  spool.write(toBytes("edit"), ConflictSpool::editKey(5));
  EXPECT_EQ(spool.pendingBytes(5), toBytes("edit"));
  EXPECT_EQ(spool.pendingBytes(6), std::nullopt);
}

TEST(ConflictSpoolTest, NodeKeysAreLowerHexOfTheUTF8Bytes) {
  EXPECT_EQ(ConflictSpool::nodeKey("n1"), "node-6e31");
  EXPECT_EQ(ConflictSpool::nodeKey("dir:a/b"), "node-6469723a612f62");
  EXPECT_EQ(ConflictSpool::nodeKey("\u00e4/\U0001F600"), "node-c3a42ff09f9880");
  std::string key = ConflictSpool::nodeKey("Caf\u00e9 \u65e5\u672c");
  EXPECT_EQ(key.find_first_not_of("0123456789abcdef", 5), std::string::npos) << key;
  EXPECT_EQ(key.size(), 5 + 2 * std::string("Caf\u00e9 \u65e5\u672c").size());
}

}  // namespace
}  // namespace synckit
