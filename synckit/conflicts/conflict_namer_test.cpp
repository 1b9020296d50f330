#include "synckit/conflicts/conflict_namer.h"

#include <gtest/gtest.h>
#include <time.h>

#include "synckit/testing/scoped_environment.h"

namespace synckit {
namespace {

using ConflictNamer::TimeZone;
using std::chrono::hours;

const Timestamp kNoon = *Timestamp::parse("2026-11-16T12:00:00.000Z");

std::string copyPath(std::string_view path, const std::unordered_set<std::string>& existing = {}) {
  return ConflictNamer::conflictCopyPath(path, "Studio", kNoon, existing, TimeZone::utc());
}

TEST(ConflictNamerTest, SplitsStemAndExtensionAtTheLastUsableDot) {
  EXPECT_EQ(copyPath("notes/plan.md"), "notes/plan (conflicted copy Studio 2026-11-16).md");
  EXPECT_EQ(copyPath("archive.tar.gz"), "archive.tar (conflicted copy Studio 2026-11-16).gz");
  EXPECT_EQ(copyPath("README"), "README (conflicted copy Studio 2026-11-16)");
  EXPECT_EQ(copyPath(".env"), ".env (conflicted copy Studio 2026-11-16)");
  EXPECT_EQ(copyPath("memo."), "memo. (conflicted copy Studio 2026-11-16)");
  // A dot in a folder name is not an extension.
  EXPECT_EQ(copyPath("v1.2/notes"), "v1.2/notes (conflicted copy Studio 2026-11-16)");
}

TEST(ConflictNamerTest, NumbersFromTwoPastTakenNamesAndKeepsDeviceLabels) {
  const std::string first = copyPath("notes/plan.md");
  const std::string second = "notes/plan (conflicted copy Studio 2026-11-16 2).md";
  EXPECT_EQ(copyPath("notes/plan.md", {first}), second);
  EXPECT_EQ(copyPath("notes/plan.md", {first, second}),
            "notes/plan (conflicted copy Studio 2026-11-16 3).md");
  // A gap is reused; unrelated names do not count.
  EXPECT_EQ(copyPath("notes/plan.md", {second, "notes/plan.md"}), first);

  EXPECT_EQ(ConflictNamer::conflictCopyPath("a.txt", "Computer", kNoon, {}, TimeZone::utc()),
            "a (conflicted copy Computer 2026-11-16).txt");
  EXPECT_EQ(
      ConflictNamer::conflictCopyPath("a.txt", "Ada\u2019s Laptop (2)", kNoon, {}, TimeZone::utc()),
      "a (conflicted copy Ada\u2019s Laptop (2) 2026-11-16).txt");
}

TEST(ConflictNamerTest, StampFollowsTheGivenZone) {
  const Timestamp lateUtc = *Timestamp::parse("2026-11-16T23:30:00.000Z");
  EXPECT_EQ(ConflictNamer::dateStamp(lateUtc, TimeZone::utc()), "2026-11-16");
  EXPECT_EQ(ConflictNamer::dateStamp(lateUtc, TimeZone::fixed(hours(1))), "2026-11-17");
  EXPECT_EQ(ConflictNamer::dateStamp(*Timestamp::parse("2026-01-01T00:30:00.000Z"),
                                     TimeZone::fixed(-hours(1))),
            "2025-12-31");
  // Before 1970 the day still rounds down.
  EXPECT_EQ(
      ConflictNamer::dateStamp(*Timestamp::parse("1969-12-31T23:59:59.999Z"), TimeZone::utc()),
      "1969-12-31");

  // The computer's zone comes from the C library, daylight saving included.
  // A POSIX rule rather than a zone name, so no zone database is needed.
  {
    testing::ScopedEnvironment environment;
    environment.set("TZ", "EST5EDT,M3.2.0,M11.1.0");
    ::tzset();
    const Timestamp summer = *Timestamp::parse("2026-07-01T03:30:00.000Z");  // UTC-4
    const Timestamp winter = *Timestamp::parse("2026-01-01T04:30:00.000Z");  // UTC-5
    EXPECT_EQ(ConflictNamer::dateStamp(summer, TimeZone::current()), "2026-06-30");
    EXPECT_EQ(ConflictNamer::dateStamp(winter, TimeZone::current()), "2025-12-31");
    environment.set("TZ", "UTC0");
    ::tzset();
    EXPECT_EQ(ConflictNamer::dateStamp(winter, TimeZone::current()), "2026-01-01");
  }
  ::tzset();
}

}  // namespace
}  // namespace synckit
