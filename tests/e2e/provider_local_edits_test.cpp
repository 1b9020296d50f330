// The upward half of halvark-provider as real processes: what a person does
// in the mirror folder (editors saving, files copied in, moves, deletes, a
// file dropped at the top) reaches the devserver through the scheduler of
// this test process. The server's change feed, read as another device,
// shows every edit arriving exactly once; nothing the provider writes
// itself comes back as an edit.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "synckit/api/op.h"
#include "synckit/base/crypto.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/testing/eventually.h"
#include "tests/e2e/provider_fixture.h"

namespace halvark::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using synckit::Uuid;
using synckit::testing::eventually;
using namespace std::chrono_literals;

void writeFile(const fs::path& file, const std::string& bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << bytes;
}

// Ops of the change feed as text ("update notes/a.md", "move a -> b"),
// counted, so that a missing or repeated op shows in a failure.
using OpCounts = std::map<std::string, int>;

std::string describe(const synckit::Op& op) {
  std::string text(synckit::toString(op.kind()));
  text += " " + op.path();
  if (const auto* move = op.as<synckit::Op::Move>()) text += " -> " + move->newPath;
  return text;
}

// At most this many lines of a difference, so that a thousand missing
// files do not bury the rest.
constexpr int differenceLines = 25;

std::string difference(const OpCounts& have, const OpCounts& want) {
  std::ostringstream out;
  int lines = 0;
  auto line = [&](const std::string& op, int seen, const std::string& expectation) {
    if (lines++ < differenceLines) out << "\n  " << op << ": " << seen << " times, " << expectation;
  };
  for (const auto& [op, count] : want) {
    const auto it = have.find(op);
    const int seen = it == have.end() ? 0 : it->second;
    if (seen != count) line(op, seen, "not " + std::to_string(count));
  }
  for (const auto& [op, count] : have) {
    if (!want.contains(op)) line(op, count, "not expected");
  }
  if (lines > differenceLines) out << "\n  ... " << lines - differenceLines << " more";
  return out.str();
}

std::string difference(const Tree& have, const Tree& want) {
  std::ostringstream out;
  int lines = 0;
  auto line = [&]() -> std::ostream& {
    static std::ostringstream discarded;
    return ++lines <= differenceLines ? out << "\n  " : discarded;
  };
  for (const auto& [path, entry] : want) {
    const auto it = have.find(path);
    if (it == have.end()) {
      line() << path << " is missing";
    } else if (it->second != entry) {
      line() << path << " is " << it->second << ", not " << entry;
    }
  }
  for (const auto& [path, entry] : have) {
    if (!want.contains(path)) line() << path << " should not be there: " << entry;
  }
  if (lines > differenceLines) out << "\n  ... " << lines - differenceLines << " more";
  return out.str();
}

class ProviderLocalEditsTest : public ProviderFixture {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(ProviderFixture::SetUp());
    // The feed leaves out what a device wrote itself; another device sees
    // every upload of the store's device.
    observer_ = api_.registerDevice("observer", "linux").id;
    demoFolder_ = mirror_ / "Demo";
  }

  // Starts the provider and waits until the mirror shows the server.
  void startMirrored(const std::vector<Uuid>& brains) {
    ASSERT_NO_FATAL_FAILURE(syncStore());
    provider_ = startProvider();
    for (const synckit::BrainRecord& brain : store_->brains()) {
      if (std::find(brains.begin(), brains.end(), brain.brainId) == brains.end()) continue;
      ASSERT_NO_FATAL_FAILURE(expectMirrored(brain.name, serverTree(brain.brainId)));
    }
  }

  std::string headCursor(const Uuid& brain) {
    const json state = control("GET", "/state");
    for (const json& server : state.at("brains")) {
      if (*Uuid::parse(server.at("id").get<std::string>()) == brain) {
        return server.at("headCursor").get<std::string>();
      }
    }
    ADD_FAILURE() << "no brain " << brain.toLowerString() << " on the server";
    return "";
  }

  OpCounts feedSince(const Uuid& brain, std::string cursor) {
    OpCounts ops;
    for (;;) {
      const synckit::ChangesResponse page = api_.fetchChanges(brain, cursor, observer_);
      const auto* entries = page.as<synckit::ChangesResponse::Incremental>();
      if (entries == nullptr) {
        ADD_FAILURE() << "the feed answered with a reset";
        return ops;
      }
      for (const synckit::FeedEntry& entry : entries->entries) {
        for (const synckit::Op& op : entry.ops) ++ops[describe(op)];
      }
      if (!entries->cursor || *entries->cursor == cursor) return ops;
      cursor = *entries->cursor;
    }
  }

  // Waits until the brain's feed after `cursor` holds exactly `want`, then
  // a while longer, so that a late echo or a second upload would show.
  void expectFeed(const Uuid& brain, const std::string& cursor, const OpCounts& want,
                  std::chrono::milliseconds limit = 30s) {
    OpCounts have;
    const bool arrived = eventually(
        [&] {
          have = feedSince(brain, cursor);
          return have == want;
        },
        limit, 100ms);
    if (arrived) {
      ASSERT_TRUE(eventually([&] { return store_->pendingChanges(brain).empty(); }, 10s, 50ms));
      std::this_thread::sleep_for(1500ms);
      have = feedSince(brain, cursor);
    }
    EXPECT_TRUE(have == want) << "the feed differs:" << difference(have, want);
  }

  void expectServer(const Uuid& brain, const Tree& want) {
    Tree have;
    const bool same = eventually(
        [&] {
          have = serverTree(brain);
          return have == want;
        },
        10s, 100ms);
    EXPECT_TRUE(same) << "the server differs:" << difference(have, want);
  }

  // The paths of `tree` that are this machine's conflicted copies of the
  // file `stem` + `extension` ("a" and ".md": "a (conflicted copy …).md").
  static std::vector<std::string> conflictedCopies(const Tree& tree, const std::string& stem,
                                                   const std::string& extension) {
    std::vector<std::string> copies;
    for (const auto& [path, entry] : tree) {
      if (path.starts_with(stem + " (conflicted copy e2e-machine ") && path.ends_with(extension)) {
        copies.push_back(path);
      }
    }
    return copies;
  }

  std::string observer_;
  fs::path demoFolder_;
  std::unique_ptr<ProviderProcess> provider_;
};

TEST_F(ProviderLocalEditsTest, EachLocalEditReachesTheServerOnce) {
  ASSERT_NO_FATAL_FAILURE(startMirrored({demo_}));
  const std::string cursor = headCursor(demo_);
  Tree expected = serverTree(demo_);
  const fs::path demo = demoFolder_;

  fs::create_directory(demo / "local");
  writeFile(demo / "local/new.md", "created here");
  expected["local"] = {'d', ""};
  expected["local/new.md"] = {'f', "created here"};
  writeFile(demo / "Welcome.md", "edited here");
  expected["Welcome.md"] = {'f', "edited here"};
  fs::rename(demo / "notes/ideas.md", demo / "notes/better ideas.md");
  expected["notes/better ideas.md"] = expected.extract("notes/ideas.md").mapped();
  fs::rename(demo / "projects/halvark/todo.txt", demo / "archive/todo.txt");
  expected["archive/todo.txt"] = expected.extract("projects/halvark/todo.txt").mapped();
  fs::rename(demo / "notes/2025", demo / "projects/2025");
  expected.erase("notes/2025");
  expected["projects/2025"] = {'d', ""};
  expected["projects/2025/march.md"] = expected.extract("notes/2025/march.md").mapped();
  fs::remove(demo / "images/pixel.png");
  expected.erase("images/pixel.png");
  // A new empty folder stays on this computer until something is put in it.
  fs::create_directory(demo / "empty here");

  // A thousand files copied in at once, as `cp -r` does it.
  const fs::path source = root_ / "bulk";
  fs::create_directory(source);
  OpCounts want{{"mkdir local", 1},
                {"create local/new.md", 1},
                {"update Welcome.md", 1},
                {"move notes/ideas.md -> notes/better ideas.md", 1},
                {"move projects/halvark/todo.txt -> archive/todo.txt", 1},
                {"move notes/2025 -> projects/2025", 1},
                {"delete images/pixel.png", 1},
                {"mkdir bulk", 1}};
  expected["bulk"] = {'d', ""};
  for (int i = 0; i < 1000; ++i) {
    const std::string name = "file " + std::to_string(i) + ".md";
    writeFile(source / name, "bulk file " + std::to_string(i) + "\n");
    expected["bulk/" + name] = {'f', "bulk file " + std::to_string(i) + "\n"};
    want["create bulk/" + name] = 1;
  }
  fs::copy(source, demo / "bulk", fs::copy_options::recursive);

  ASSERT_NO_FATAL_FAILURE(expectFeed(demo_, cursor, want, 60s));
  expectServer(demo_, expected);
  const auto folder = store_->nodeAtPath(demo_, "empty here");
  EXPECT_TRUE(folder.has_value() && folder->isDirectory);
  expected["empty here"] = {'d', ""};
  expectMirrored("Demo", expected, 5s);
  EXPECT_EQ(syncErrors(), std::vector<std::string>{});
}

TEST_F(ProviderLocalEditsTest, EditorSavesAndASlowWriteArriveAsOneChangeEach) {
  ASSERT_NO_FATAL_FAILURE(startMirrored({demo_}));
  const std::string cursor = headCursor(demo_);
  Tree expected = serverTree(demo_);
  const fs::path demo = demoFolder_;

  // vim: a swap file while editing; on saving, a probe file, the original
  // renamed to a backup, the new content written, the backup removed.
  writeFile(demo / ".Welcome.md.swp", std::string(4096, '\0'));
  writeFile(demo / "4913", "");
  fs::remove(demo / "4913");
  fs::rename(demo / "Welcome.md", demo / "Welcome.md~");
  writeFile(demo / "Welcome.md", "saved by vim\n");
  fs::remove(demo / "Welcome.md~");
  expected["Welcome.md"] = {'f', "saved by vim\n"};

  // gedit: a hidden temporary file renamed over the original.
  writeFile(demo / "notes/.goutputstream-Q2W3E4", "saved by gedit\n");
  fs::rename(demo / "notes/.goutputstream-Q2W3E4", demo / "notes/ideas.md");
  expected["notes/ideas.md"] = {'f', "saved by gedit\n"};

  // In place: truncated, then written in two parts.
  {
    std::ofstream out(demo / "notes/2025/march.md", std::ios::binary | std::ios::trunc);
    out << "# March\n" << std::flush;
    std::this_thread::sleep_for(50ms);
    out << "rewritten in place\n";
  }
  expected["notes/2025/march.md"] = {'f', "# March\nrewritten in place\n"};

  // LibreOffice: a lock file while the document is open, a temporary file
  // renamed over the original on saving.
  const fs::path project = demo / "projects/halvark";
  writeFile(project / ".~lock.todo.txt#", ",someone,host,23.11.2025 10:00,file:///home;");
  writeFile(project / "lu3c7n2h.tmp", "saved by an office suite\n");
  fs::rename(project / "lu3c7n2h.tmp", project / "todo.txt");
  expected["projects/halvark/todo.txt"] = {'f', "saved by an office suite\n"};

  // 10 MB arriving over three seconds through one open file.
  const std::string slow = [] {
    const synckit::Bytes bytes = synckit::secureRandomBytes(10 * 1024 * 1024);
    return std::string(bytes.begin(), bytes.end());
  }();
  {
    std::ofstream out(demo / "images/slow.bin", std::ios::binary);
    constexpr std::size_t parts = 30;
    const std::size_t part = slow.size() / parts + 1;
    for (std::size_t offset = 0; offset < slow.size(); offset += part) {
      out.write(slow.data() + offset,
                static_cast<std::streamsize>(std::min(part, slow.size() - offset)));
      out.flush();
      std::this_thread::sleep_for(100ms);
    }
  }
  expected["images/slow.bin"] = {'f', slow};

  ASSERT_NO_FATAL_FAILURE(expectFeed(demo_, cursor,
                                     {{"update Welcome.md", 1},
                                      {"update notes/ideas.md", 1},
                                      {"update notes/2025/march.md", 1},
                                      {"update projects/halvark/todo.txt", 1},
                                      {"create images/slow.bin", 1}}));
  // The editors quit; their leftovers go without a trace on the server.
  fs::remove(demo / ".Welcome.md.swp");
  fs::remove(project / ".~lock.todo.txt#");
  expectServer(demo_, expected);
  expectMirrored("Demo", expected, 5s);
}

TEST_F(ProviderLocalEditsTest, FindsEditsMadeWhileStoppedAndAfterAnOverflow) {
  ASSERT_NO_FATAL_FAILURE(startMirrored({demo_}));
  std::string cursor = headCursor(demo_);
  Tree expected = serverTree(demo_);
  const fs::path demo = demoFolder_;

  // While nothing runs: an edit, a new file, a removal, a rename, and a file
  // touched without a change.
  ASSERT_EQ(provider_->stop(SIGTERM), 0);
  writeFile(demo / "Welcome.md", "edited while stopped");
  expected["Welcome.md"] = {'f', "edited while stopped"};
  writeFile(demo / "notes/offline.md", "new while stopped");
  expected["notes/offline.md"] = {'f', "new while stopped"};
  fs::remove(demo / "notes/ideas.md");
  expected.erase("notes/ideas.md");
  fs::rename(demo / "projects/halvark/todo.txt", demo / "projects/halvark/done.txt");
  expected["projects/halvark/done.txt"] = expected.extract("projects/halvark/todo.txt").mapped();
  fs::last_write_time(demo / "notes/2025/march.md", fs::file_time_type::clock::now());
  provider_ = startProvider();
  ASSERT_NO_FATAL_FAILURE(
      expectFeed(demo_, cursor,
                 {{"update Welcome.md", 1},
                  {"create notes/offline.md", 1},
                  {"delete notes/ideas.md", 1},
                  {"move projects/halvark/todo.txt -> projects/halvark/done.txt", 1}}));
  expectServer(demo_, expected);

  // The provider is held while a file it never uploads is rewritten until
  // the kernel's event queue overflows (it holds 16,384 events here, and
  // each rewrite adds two that cannot merge); the edits after that have no
  // events, so only the rescan after the overflow can find them. A watch of
  // the test's own, read only afterwards, shows the overflow happened.
  cursor = headCursor(demo_);
  const int witness = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(witness, 0);
  ASSERT_GE(inotify_add_watch(witness, demo.c_str(), IN_MODIFY | IN_CLOSE_WRITE), 0);
  provider_->signal(SIGSTOP);
  const std::string flood = (demo / ".DS_Store").string();
  for (int i = 0; i < 10000; ++i) {
    const int fd = ::open(flood.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "x", 1), 1);
    ::close(fd);
  }
  writeFile(demo / "notes/after overflow.md", "unseen by the watcher");
  expected["notes/after overflow.md"] = {'f', "unseen by the watcher"};
  writeFile(demo / "notes/offline.md", "changed unseen");
  expected["notes/offline.md"] = {'f', "changed unseen"};
  fs::rename(demo / "images/pixel.png", demo / "images/dot.png");
  expected["images/dot.png"] = expected.extract("images/pixel.png").mapped();
  provider_->signal(SIGCONT);

  bool overflowed = false;
  alignas(inotify_event) char buffer[64 * 1024];
  for (ssize_t size; !overflowed && (size = ::read(witness, buffer, sizeof buffer)) > 0;) {
    for (ssize_t at = 0; at < size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      overflowed = overflowed || (event->mask & IN_Q_OVERFLOW) != 0;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  ::close(witness);
  EXPECT_TRUE(overflowed) << "the flood did not overflow a watch's queue";

  ASSERT_NO_FATAL_FAILURE(expectFeed(demo_, cursor,
                                     {{"create notes/after overflow.md", 1},
                                      {"update notes/offline.md", 1},
                                      {"move images/pixel.png -> images/dot.png", 1}}));
  expectServer(demo_, expected);
  expected[".DS_Store"] = {'f', "x"};
  expectMirrored("Demo", expected, 5s);
}

TEST_F(ProviderLocalEditsTest, KeepsBothSidesOfARaceAndSendsLooseFilesToTheInbox) {
  const Uuid inbox = createBrain("Inbox", "inbox");
  ASSERT_NO_FATAL_FAILURE(startMirrored({demo_, inbox}));
  const std::string demoCursor = headCursor(demo_);
  const std::string inboxCursor = headCursor(inbox);
  const fs::path demo = demoFolder_;

  // A remote edit is on its way down (its download held up on the server)
  // when the user saves another version of the same file.
  control("POST", "/faults",
          {{"path", "/brains/" + demo_.toLowerString() + "/file"},
           {"method", "GET"},
           {"delayMs", 1500},
           {"count", 1}});
  serverWrite(demo_, "notes/ideas.md", "the remote version\n");
  ASSERT_NO_FATAL_FAILURE(syncStore());
  ASSERT_TRUE(
      eventually([&] { return control("GET", "/faults").at("faults").empty(); }, 10s, 10ms));
  writeFile(demo / "notes/ideas.md", "the local version\n");

  // A file dropped at the top of the mirror, outside every brain.
  writeFile(mirror_ / "loose.md", "dropped at the top\n");

  // A move into another brain's folder is refused; the file stays there.
  const std::string march = "# March\n\nPlanted tomatoes on the 12th.\n";
  fs::rename(demo / "notes/2025/march.md", mirror_ / "Inbox/march.md");

  ASSERT_TRUE(eventually(
      [&] {
        const std::vector<std::string> errors = syncErrors();
        return std::any_of(errors.begin(), errors.end(), [](const std::string& text) {
          return text.find(synckit::UploadPlanner::crossBrainMessage) != std::string::npos;
        });
      },
      20s, 50ms))
      << ::testing::PrintToString(syncErrors());

  // Both versions of the raced file survive, the remote one at its path.
  Tree server;
  std::vector<std::string> copies;
  ASSERT_TRUE(eventually(
      [&] {
        server = serverTree(demo_);
        copies = conflictedCopies(server, "notes/ideas", ".md");
        return copies.size() == 1;
      },
      30s, 100ms))
      << "no conflicted copy of notes/ideas.md on the server:" << difference(server, {});
  EXPECT_EQ(server["notes/ideas.md"], (Entry{'f', "the remote version\n"}));
  EXPECT_EQ(server[copies.front()], (Entry{'f', "the local version\n"}));
  ASSERT_NO_FATAL_FAILURE(expectFeed(
      demo_, demoCursor, {{"update notes/ideas.md", 1}, {"create " + copies.front(), 1}}));
  // The refused move left the server's file where it was.
  EXPECT_EQ(server["notes/2025/march.md"], (Entry{'f', march}));

  ASSERT_NO_FATAL_FAILURE(expectFeed(inbox, inboxCursor, {{"create loose.md", 1}}));
  EXPECT_EQ(serverTree(inbox)["loose.md"], (Entry{'f', "dropped at the top\n"}));
  EXPECT_FALSE(fs::exists(mirror_ / "loose.md"));
  EXPECT_EQ(readAll(mirror_ / "Inbox/loose.md"), "dropped at the top\n");
  EXPECT_EQ(readAll(mirror_ / "Inbox/march.md"), march);
  EXPECT_EQ(readAll(demo / "notes/ideas.md"), "the remote version\n");
  EXPECT_EQ(readAll(demo / copies.front()), "the local version\n");
}

}  // namespace
}  // namespace halvark::e2e
