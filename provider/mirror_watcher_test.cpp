#include "provider/mirror_watcher.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "provider/testing/file_contents.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark::provider {

// Readable failures; internal, so that another test may print events too.
[[maybe_unused]] static void PrintTo(const MirrorWatcher::Event& event, std::ostream* out) {
  static constexpr const char* kinds[] = {"created",    "found",     "modified", "closed",
                                          "attributes", "movedFrom", "movedTo",  "removed"};
  *out << kinds[static_cast<int>(event.kind)] << ' ' << event.path;
  if (event.isDirectory) *out << " (folder)";
  if (event.cookie != 0) *out << " #" << event.cookie;
}

namespace {

namespace fs = std::filesystem;
using Event = MirrorWatcher::Event;
using Kind = Event::Kind;
using synckit::testing::TemporaryDirectory;

using testing::writeFile;

// The events without their cookies, which only need to match each other.
std::vector<Event> withoutCookies(std::vector<Event> events) {
  for (Event& event : events) event.cookie = 0;
  return events;
}

TEST(MirrorWatcherTest, ReportsEventsInEveryFolderUnderItsCurrentPath) {
  TemporaryDirectory temp;
  fs::create_directories(temp / "mirror/Brain/notes");
  MirrorRoot mirror(temp / "mirror");
  MirrorWatcher watcher(mirror);
  EXPECT_EQ(watcher.watchCount(), 3u);
  EXPECT_EQ(watcher.read(), MirrorWatcher::Batch{});

  // Folders made faster than they can be watched: what they hold by the
  // time the watch starts is reported as found, after its folder.
  fs::create_directories(temp / "mirror/Brain/a/b/c");
  writeFile(temp / "mirror/Brain/a/b/c/deep.md", "deep");
  const auto made = watcher.read().events;
  auto reported = [&](const Event& event) {
    return std::find(made.begin(), made.end(), event) != made.end();
  };
  EXPECT_TRUE(reported({Kind::created, "Brain/a", true, 0}));
  for (const char* folder : {"Brain/a/b", "Brain/a/b/c"}) {
    EXPECT_TRUE(reported({Kind::found, folder, true, 0})) << folder;
  }
  EXPECT_TRUE(reported({Kind::found, "Brain/a/b/c/deep.md", false, 0}));
  EXPECT_EQ(watcher.watchCount(), 6u);

  // Writes, renames and removals; a renamed folder keeps reporting, under
  // its new name.
  writeFile(temp / "mirror/Brain/notes/a.md", "a");
  fs::rename(temp / "mirror/Brain/notes/a.md", temp / "mirror/Brain/a/b/a.md");
  fs::rename(temp / "mirror/Brain/a", temp / "mirror/Brain/z");
  writeFile(temp / "mirror/Brain/z/b/c/deep.md", "deeper");
  fs::remove(temp / "mirror/Brain/z/b/a.md");
  const auto events = watcher.read().events;
  EXPECT_EQ(withoutCookies(events), (std::vector<Event>{
                                        {Kind::created, "Brain/notes/a.md", false, 0},
                                        {Kind::modified, "Brain/notes/a.md", false, 0},
                                        {Kind::closed, "Brain/notes/a.md", false, 0},
                                        {Kind::movedFrom, "Brain/notes/a.md", false, 0},
                                        {Kind::movedTo, "Brain/a/b/a.md", false, 0},
                                        {Kind::movedFrom, "Brain/a", true, 0},
                                        {Kind::movedTo, "Brain/z", true, 0},
                                        {Kind::modified, "Brain/z/b/c/deep.md", false, 0},
                                        {Kind::closed, "Brain/z/b/c/deep.md", false, 0},
                                        {Kind::removed, "Brain/z/b/a.md", false, 0},
                                    }));
  ASSERT_EQ(events.size(), 10u);
  EXPECT_EQ(events[3].cookie, events[4].cookie);
  EXPECT_EQ(events[5].cookie, events[6].cookie);
  EXPECT_NE(events[3].cookie, events[5].cookie);

  // A folder moved out of the mirror is let go once its rename is seen to
  // have no second half; one moved in is new, content and all.
  fs::rename(temp / "mirror/Brain/z", temp / "outside");
  EXPECT_EQ(withoutCookies(watcher.read().events),
            (std::vector<Event>{{Kind::movedFrom, "Brain/z", true, 0}}));
  EXPECT_EQ(watcher.read(), MirrorWatcher::Batch{});
  writeFile(temp / "outside/b/c/unseen.md", "not in the mirror");
  EXPECT_EQ(watcher.read(), MirrorWatcher::Batch{});
  EXPECT_EQ(watcher.watchCount(), 3u);
  fs::rename(temp / "outside", temp / "mirror/Brain/back");
  EXPECT_EQ(withoutCookies(watcher.read().events),
            (std::vector<Event>{{Kind::movedTo, "Brain/back", true, 0},
                                {Kind::found, "Brain/back/b", true, 0},
                                {Kind::found, "Brain/back/b/c", true, 0},
                                {Kind::found, "Brain/back/b/c/deep.md", false, 0},
                                {Kind::found, "Brain/back/b/c/unseen.md", false, 0}}));

  // Lost events: the watches are made afresh, and what follows is reported.
  watcher.injectOverflow();
  const auto lost = watcher.read();
  EXPECT_TRUE(lost.overflowed);
  EXPECT_TRUE(lost.events.empty());
  EXPECT_EQ(watcher.watchCount(), 6u);
  fs::remove(temp / "mirror/Brain/back/b/c/unseen.md");
  fs::remove_all(temp / "mirror/Brain/back/b");
  EXPECT_EQ(watcher.read().events,
            (std::vector<Event>{{Kind::removed, "Brain/back/b/c/unseen.md", false, 0},
                                {Kind::removed, "Brain/back/b/c/deep.md", false, 0},
                                {Kind::removed, "Brain/back/b/c", true, 0},
                                {Kind::removed, "Brain/back/b", true, 0}}));
  EXPECT_EQ(watcher.watchCount(), 4u);
  EXPECT_TRUE(watcher.takeUnwatched().empty());
}

// The staging folder says only what leaves it: an update's downloads are
// renames into place, never the user's writes.
TEST(MirrorWatcherTest, HearsOnlyRenamesFromTheStagingFolder) {
  TemporaryDirectory temp;
  fs::create_directories(temp / "mirror/Brain");
  MirrorRoot mirror(temp / "mirror");
  MirrorWatcher watcher(mirror);
  auto staged = mirror.stage();
  EXPECT_TRUE(watcher.read().events.empty());
  staged.write(synckit::toBytes("downloaded"));
  staged.commit("Brain/new.md");
  const auto events = watcher.read().events;
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events[0].kind, Kind::movedFrom);
  EXPECT_TRUE(events[0].path.starts_with(".halvark-staging/"));
  EXPECT_EQ(events[1], (Event{Kind::movedTo, "Brain/new.md", false, events[0].cookie}));
  // The staged file's descriptor may be closed after the rename.
  EXPECT_LE(events.size(), 3u);
}

}  // namespace
}  // namespace halvark::provider
