#include "provider/settle_queue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "provider/testing/print_local_change.h"
#include "synckit/testing/fake_clock.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark::provider {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Kind = LocalChange::Kind;
using Changes = std::vector<LocalChange>;

LocalChange written(std::string path) { return {Kind::written, std::move(path), {}, false}; }
LocalChange madeFolder(std::string path) { return {Kind::madeFolder, std::move(path), {}, true}; }
LocalChange removed(std::string path, bool isDirectory = false) {
  return {Kind::removed, std::move(path), {}, isDirectory};
}
LocalChange moved(std::string from, std::string to, bool isDirectory = false) {
  return {Kind::moved, std::move(to), std::move(from), isDirectory};
}

// Real file operations under a real watcher; only time is fake, so that
// nothing sleeps.
class SettleQueueTest : public ::testing::Test {
 protected:
  SettleQueueTest() {
    fs::create_directories(temp_ / "mirror/Brain/notes");
    fs::create_directories(temp_ / "outside");
    mirror_ = std::make_unique<MirrorRoot>(temp_ / "mirror");
    watcher_ = std::make_unique<MirrorWatcher>(*mirror_);
    queue_ = std::make_unique<SettleQueue>(*mirror_, clock_, options_);
    queue_->setUnsupportedHandler(
        [this](const std::string& path, const std::string&) { unsupported_.push_back(path); });
  }

  fs::path at(const std::string& relative) const { return temp_ / "mirror" / relative; }

  void write(const std::string& relative, const std::string& content) {
    std::ofstream(at(relative), std::ios::binary | std::ios::trunc) << content;
  }

  // Hands over what the watcher saw.
  void collect() { queue_->add(watcher_->read().events); }

  // Advances the clock by `by` and returns what has settled by then.
  Changes after(std::chrono::milliseconds by) {
    collect();
    clock_.advance(by);
    return queue_->takeSettled();
  }

  // Lets time pass from deadline to deadline until nothing waits.
  Changes settled() {
    collect();
    Changes all;
    for (int round = 0; round < 20 && !queue_->empty(); ++round) {
      const auto next = queue_->nextDeadline();
      if (!next) break;
      const auto wait = next->millisecondsSinceEpoch() - clock_.now().millisecondsSinceEpoch();
      clock_.advance(std::chrono::milliseconds(std::max<std::int64_t>(wait, 0)));
      for (LocalChange& change : queue_->takeSettled()) all.push_back(std::move(change));
    }
    EXPECT_TRUE(queue_->empty());
    return all;
  }

  synckit::testing::TemporaryDirectory temp_;
  synckit::testing::FakeClock clock_;
  SettleQueue::Options options_;
  std::unique_ptr<MirrorRoot> mirror_;
  std::unique_ptr<MirrorWatcher> watcher_;
  std::unique_ptr<SettleQueue> queue_;
  std::vector<std::string> unsupported_;
};

TEST_F(SettleQueueTest, EachEditorsSaveIsOneWriteOfTheDocument) {
  const std::string doc = "Brain/notes/doc.md";
  const std::string folder = "Brain/notes/";
  const std::vector<std::pair<std::string, std::function<void()>>> saves{
      {"vim",
       [&] {
         write(folder + ".doc.md.swp", std::string(64, '\0'));
         write(folder + "4913", "");
         fs::remove(at(folder + "4913"));
         fs::rename(at(doc), at(doc + "~"));
         write(doc, "saved by vim");
         fs::permissions(at(doc), fs::perms::owner_read | fs::perms::owner_write);
         fs::remove(at(doc + "~"));
       }},
      {"vim keeping its backup",
       [&] {
         fs::rename(at(doc), at(doc + "~"));
         write(doc, "saved, backup kept");
       }},
      {"gedit",
       [&] {
         write(folder + ".goutputstream-Q2W3E4", "saved by gedit");
         fs::rename(at(folder + ".goutputstream-Q2W3E4"), at(doc));
       }},
      {"LibreOffice",
       [&] {
         write(folder + ".~lock.doc.md#", ",me,host,now;");
         write(folder + "lu3c7n2h.tmp", "saved by an office suite");
         fs::rename(at(folder + "lu3c7n2h.tmp"), at(doc));
       }},
      {"removed, then a temporary renamed into its place",
       [&] {
         write(folder + ".doc.md.x7Yq2", "saved by a copy tool");
         fs::remove(at(doc));
         fs::rename(at(folder + ".doc.md.x7Yq2"), at(doc));
       }},
      {"in place, in two writes",
       [&] {
         std::ofstream out(at(doc), std::ios::binary | std::ios::trunc);
         out << "first half, " << std::flush;
         out << "second half";
       }},
      {"truncated, then rewritten",
       [&] {
         fs::resize_file(at(doc), 0);
         std::ofstream(at(doc), std::ios::binary | std::ios::app) << "rewritten";
       }},
  };
  write(doc, "original");
  ASSERT_EQ(settled(), Changes{written(doc)});
  for (const auto& [editor, save] : saves) {
    save();
    EXPECT_EQ(settled(), Changes{written(doc)}) << editor;
  }
  // The editors' lock and swap files, still there, were never reported.
  EXPECT_TRUE(fs::exists(at(folder + ".doc.md.swp")));
  fs::remove(at(folder + ".doc.md.swp"));
  fs::remove(at(folder + ".~lock.doc.md#"));
  fs::remove(at(doc + "~"));
  EXPECT_EQ(settled(), Changes{});
}

TEST_F(SettleQueueTest, OnlyWholeFilesAreReported) {
  const auto quiet = options_.quiet;
  const auto settle = options_.settle;

  // Closed: reported once left alone for the quiet time.
  write("Brain/closed.md", "whole");
  EXPECT_EQ(after(quiet - 1ms), Changes{});
  EXPECT_EQ(after(1ms), Changes{written("Brain/closed.md")});

  // Made and removed before that: nothing at all, folders included.
  write("Brain/probe", "");
  fs::create_directory(at("Brain/scratch"));
  write("Brain/scratch/tmp.md", "gone soon");
  EXPECT_EQ(after(quiet / 2), Changes{});
  fs::remove(at("Brain/probe"));
  fs::remove_all(at("Brain/scratch"));
  EXPECT_EQ(settled(), Changes{});

  // Held open and written slowly: nothing until its size and time have
  // stood still for the settle time, then one write.
  const int fd = ::open(at("Brain/slow.bin").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  const std::string part(64 * 1024, 's');
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(::write(fd, part.data(), part.size()), static_cast<ssize_t>(part.size()));
    EXPECT_EQ(after(settle - 100ms), Changes{}) << i;
  }
  EXPECT_EQ(after(99ms), Changes{});
  EXPECT_EQ(after(1ms), Changes{written("Brain/slow.bin")});
  ::close(fd);
  EXPECT_EQ(fs::file_size(at("Brain/slow.bin")), 10 * part.size());
  // Closing it without writing again is only a touch, which the journal
  // recognises by the content.
  EXPECT_EQ(settled(), Changes{written("Brain/slow.bin")});

  // While something is being written elsewhere, a settled change waits
  // for quiet, but no longer than longestHold.
  write("Brain/busy.log", "line");
  EXPECT_EQ(after(quiet), Changes{written("Brain/busy.log")});
  write("Brain/done.md", "done");
  Changes seen;
  for (auto waited = 0ms; seen.empty() && waited < 3s; waited += quiet / 2) {
    std::ofstream(at("Brain/busy.log"), std::ios::app) << "line";
    seen = after(quiet / 2);
  }
  EXPECT_EQ(seen, Changes{written("Brain/done.md")});
  EXPECT_EQ(settled(), Changes{written("Brain/busy.log")});
}

TEST_F(SettleQueueTest, RenamesArePairedIntoMovesAndFoldersMoveAsOne) {
  write("Brain/notes/a.md", "a");
  fs::create_directories(at("Brain/projects/plans"));
  write("Brain/projects/plans/p.md", "p");
  write("Brain/projects/q.md", "q");
  settled();

  fs::rename(at("Brain/notes/a.md"), at("Brain/notes/b.md"));
  fs::rename(at("Brain/notes/b.md"), at("Brain/c.md"));
  EXPECT_EQ(settled(), Changes{moved("Brain/notes/a.md", "Brain/c.md")});

  // An edit below a folder, then the folder renamed: the folder's move
  // first, the edit under the new name; one removal for a removed folder.
  write("Brain/projects/plans/p.md", "edited");
  write("Brain/projects/plans/new.md", "new");
  fs::rename(at("Brain/projects"), at("Brain/work"));
  EXPECT_EQ(settled(),
            (Changes{moved("Brain/projects", "Brain/work", true), written("Brain/work/plans/p.md"),
                     written("Brain/work/plans/new.md")}));
  fs::remove(at("Brain/work/q.md"));
  fs::remove_all(at("Brain/work"));
  EXPECT_EQ(settled(), Changes{removed("Brain/work", true)});

  // Out of the mirror is a removal; into it, new, a folder with its content.
  fs::rename(at("Brain/c.md"), temp_ / "outside/c.md");
  EXPECT_EQ(settled(), Changes{removed("Brain/c.md")});
  fs::create_directories(temp_ / "outside/album/2025");
  std::ofstream(temp_ / "outside/album/2025/pic.png") << "png";
  fs::rename(temp_ / "outside/album", at("Brain/album"));
  fs::rename(temp_ / "outside/c.md", at("Brain/notes/c.md"));
  // (A file found in a new folder may still be written: it waits to settle.)
  EXPECT_EQ(settled(), (Changes{madeFolder("Brain/album"), madeFolder("Brain/album/2025"),
                                written("Brain/notes/c.md"), written("Brain/album/2025/pic.png")}));

  // What a rescan finds merges with the watcher's events, whichever comes
  // first: each change once.
  fs::rename(at("Brain/notes/c.md"), at("Brain/c2.md"));
  collect();
  queue_->add(Changes{moved("Brain/notes/c.md", "Brain/c2.md")});
  EXPECT_EQ(settled(), Changes{moved("Brain/notes/c.md", "Brain/c2.md")});
  fs::rename(at("Brain/c2.md"), at("Brain/c3.md"));
  fs::remove(at("Brain/album/2025/pic.png"));
  std::ofstream(at("Brain/album/2025/new.png"), std::ios::app) << "new";
  queue_->add(Changes{moved("Brain/c2.md", "Brain/c3.md"), removed("Brain/album/2025/pic.png"),
                      written("Brain/album/2025/new.png")});
  EXPECT_EQ(settled(),
            (Changes{moved("Brain/c2.md", "Brain/c3.md"), removed("Brain/album/2025/pic.png"),
                     written("Brain/album/2025/new.png")}));

  // A folder moved where the watcher had no watch yet is found by the
  // listing of a folder the provider made; the rescan that follows says it
  // moved, and the move comes first.
  fs::rename(at("Brain/album"), at("Brain/notes/album"));
  watcher_->read();
  using Event = MirrorWatcher::Event;
  queue_->add(std::vector<Event>{{Event::Kind::found, "Brain/notes/album", true, 0},
                                 {Event::Kind::found, "Brain/notes/album/2025", true, 0}});
  queue_->add(Changes{moved("Brain/album", "Brain/notes/album", true)});
  EXPECT_EQ(settled(), (Changes{moved("Brain/album", "Brain/notes/album", true),
                                madeFolder("Brain/notes/album/2025")}));
}

TEST_F(SettleQueueTest, TheProvidersOwnRenamesAndUnsupportedItemsAreLeftOut) {
  write("Brain/kept.md", "kept");
  write("Brain/other.md", "other");
  settled();

  // A download put in place, over a file or new; a swap through parking.
  for (const char* target : {"Brain/kept.md", "Brain/notes/downloaded.md"}) {
    auto staged = mirror_->stage();
    collect();
    staged.write(synckit::toBytes("from the server"));
    staged.commit(target);
  }
  const std::string parked = mirror_->park("Brain/kept.md");
  collect();
  fs::rename(at("Brain/other.md"), at("Brain/kept.md"));
  mirror_->unpark(parked, "Brain/other.md");
  fs::create_directory(at("Brain/.halvark-moving-0123456789abcdef"));
  write("Brain/.halvark-moving-0123456789abcdef/x.md", "aside");
  EXPECT_EQ(settled(), Changes{moved("Brain/other.md", "Brain/kept.md")});

  fs::create_symlink("/etc/passwd", at("Brain/link"));
  ASSERT_EQ(::mkfifo(at("Brain/pipe").c_str(), 0600), 0);
  EXPECT_EQ(settled(), Changes{});
  EXPECT_EQ(unsupported_, (std::vector<std::string>{"Brain/link", "Brain/pipe"}));
}

}  // namespace
}  // namespace halvark::provider
