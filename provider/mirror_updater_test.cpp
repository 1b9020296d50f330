#include "provider/mirror_updater.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>

#include "provider/freedesktop_trash.h"
#include "provider/mirror_root.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/brain_grants.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/crash_point.h"
#include "synckit/base/crypto.h"
#include "synckit/engine/batch_applier.h"
#include "synckit/platform/provider_progress.h"
#include "synckit/store/local_index.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark::provider {
namespace {

namespace fs = std::filesystem;
using synckit::NodeKind;
using synckit::Uuid;
using synckit::testing::entryNames;
using Tree = std::map<std::string, std::string>;

constexpr char kBase[] = "https://sync.example.test";
constexpr char kFolder[] = "/";  // how a folder shows in a Tree

std::string contentOf(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const fs::path& file, const std::string& content) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

// Every item below `root` (the staging folder aside): files by content,
// folders as "/", links as "->target".
Tree treeOf(const fs::path& root) {
  Tree tree;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    const std::string relative = it->path().lexically_relative(root).string();
    if (relative == MirrorRoot::stagingFolderName) {
      it.disable_recursion_pending();
    } else if (it->is_symlink()) {
      tree[relative] = "->" + fs::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      tree[relative] = kFolder;
    } else {
      tree[relative] = contentOf(it->path());
    }
  }
  return tree;
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      decoded += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

struct SimulatedCrash {};

// A container, a mirror, a trash and a fake server whose files the tests
// set, with the updater over them. reopen() starts every object afresh on
// the same files, as a restarted provider would.
struct World {
  synckit::testing::TemporaryDirectory temp;
  synckit::testing::ScopedEnvironment environment;
  const fs::path mirrorPath = temp / "home" / "Halvark";
  synckit::testing::FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens{synckit::TokenSet{"a1", "r1"}};
  synckit::TokenManager tokenManager{kBase, transport, tokens, [] { return std::string("c"); }};
  synckit::SyncAPIClient api{kBase, transport, tokenManager};

  std::mutex servedMutex;
  std::map<std::pair<std::string, std::string>, std::pair<std::string, bool>> served;

  std::unique_ptr<synckit::MetadataStore> store;
  std::unique_ptr<synckit::LocalIndex> index;
  std::unique_ptr<MirrorRoot> mirror;
  std::unique_ptr<FreedesktopTrash> trash;
  std::unique_ptr<MirrorUpdater> updater;
  std::vector<std::string> skips;

  World() {
    environment.set("XDG_DATA_HOME", (temp / "data").string());
    transport.setHandler([this](const synckit::HTTPRequest& request) { return serve(request); });
    reopen();
  }

  void reopen() {
    updater.reset();
    trash.reset();
    mirror.reset();
    index.reset();
    store.reset();
    store = synckit::MetadataStore::open(temp / "container" / "sync.sqlite");
    index = std::make_unique<synckit::LocalIndex>(temp / "container" / "provider-index.sqlite");
    mirror = std::make_unique<MirrorRoot>(mirrorPath);
    trash = std::make_unique<FreedesktopTrash>(*mirror);
    updater = std::make_unique<MirrorUpdater>(
        *store, *index, *mirror, *trash, DownloadPool::readingWith(api, tokenManager),
        MirrorUpdater::Options{4, progressFile(), std::chrono::milliseconds(250)});
    updater->setSkipHandler([this](const Uuid&, const std::string& path, const std::string&) {
      skips.push_back(path);
    });
  }

  fs::path progressFile() const { return temp / "container" / "provider-progress.json"; }
  fs::path trashFiles() const { return temp / "data" / "Trash" / "files"; }

  synckit::HTTPResponse serve(const synckit::HTTPRequest& request) {
    const std::string& url = request.url;
    const auto brainAt = url.find("/brains/") + 8;
    const std::string brain = url.substr(brainAt, url.find('/', brainAt) - brainAt);
    const auto pathAt = url.find("path=") + 5;
    const std::string path = percentDecoded(url.substr(pathAt, url.find("&at=") - pathAt));
    std::lock_guard lock(servedMutex);
    auto it = served.find({brain, path});
    if (it == served.end()) {
      return synckit::testing::FakeHTTPTransport::json(
          404, R"({"error":{"code":"NOT_FOUND","message":"No file."}})");
    }
    const auto& [content, blob] = it->second;
    if (blob) {
      return {200, {{"Content-Type", "application/octet-stream"}}, synckit::toBytes(content)};
    }
    return synckit::testing::FakeHTTPTransport::json(
        200,
        nlohmann::json{{"path", path}, {"at", "2025-03-01T09:30:12.345Z"}, {"content", content}}
            .dump());
  }

  void setServed(const Uuid& brain, const std::string& path, std::string content, bool blob) {
    std::lock_guard lock(servedMutex);
    served[{brain.toLowerString(), path}] = {std::move(content), blob};
  }

  Uuid addBrain(const std::string& name, const std::string& slug) {
    const Uuid brainId = Uuid::random();
    store->upsertBrain({brainId, slug, name, std::nullopt});
    store->recordChange(synckit::SyncItemIdentifier::brain(brainId), false);
    return brainId;
  }

  // A file created or changed on the server and applied to the store; a
  // blob's hash names `hashed` (the served content unless told otherwise).
  void putFile(const Uuid& brain, const std::string& path, const std::string& content,
               NodeKind kind = NodeKind::text, std::optional<std::string> hashed = std::nullopt) {
    setServed(brain, path, content, kind == NodeKind::blob);
    store->writeTransaction([&] {
      synckit::BatchApplier(brain, *store).applyUpdate(path, std::nullopt, true, kind);
      if (kind == NodeKind::blob) {
        auto node = store->nodeAtPath(brain, path);
        const std::string bytes = hashed.value_or(content);
        node->blobHash = synckit::hexLower(synckit::sha256(bytes));
        node->blobSize = static_cast<std::int64_t>(bytes.size());
        store->upsertNode(*node);
      }
    });
  }

  void moveNode(const Uuid& brain, const std::string& from, const std::string& to) {
    {
      std::lock_guard lock(servedMutex);
      decltype(served) moved;
      for (auto& [key, value] : served) {
        const bool below = key.second == from || key.second.starts_with(from + "/");
        if (key.first == brain.toLowerString() && below) {
          moved[{key.first, to + key.second.substr(from.size())}] = value;
        } else {
          moved[key] = value;
        }
      }
      served = std::move(moved);
    }
    store->writeTransaction([&] { synckit::BatchApplier(brain, *store).applyMove(from, to); });
  }

  void deleteNode(const Uuid& brain, const std::string& path) {
    store->writeTransaction([&] { synckit::BatchApplier(brain, *store).deleteSubtree(path); });
  }

  // A brain "Notes" on disk, and then the server's changes to it: an
  // update, a folder moved with its children, a folder deleted, and two
  // files that trade places.
  Uuid materialiseSample() {
    const Uuid notes = addBrain("Notes", "notes");
    putFile(notes, "docs/a.md", "alpha");
    putFile(notes, "docs/sub/b.md", "beta");
    putFile(notes, "top.md", "old top");
    putFile(notes, "gone/x.md", "doomed");
    putFile(notes, "one.md", "first");
    putFile(notes, "two.md", "second");
    updater->update();
    return notes;
  }
  void changeSample(const Uuid& notes) {
    putFile(notes, "top.md", "new top");
    moveNode(notes, "docs", "archive/docs");
    deleteNode(notes, "gone");
    moveNode(notes, "one.md", "swap.tmp");
    moveNode(notes, "two.md", "one.md");
    moveNode(notes, "swap.tmp", "two.md");
  }

  Tree tree() const { return treeOf(mirrorPath); }

  std::set<std::string> staged() const {
    const fs::path staging = mirrorPath / MirrorRoot::stagingFolderName;
    return fs::exists(staging) ? entryNames(staging) : std::set<std::string>{};
  }

  // Every row of the index names what is on disk at its path, and the
  // anchor is the store's.
  void expectIndexMatchesDisk() {
    EXPECT_EQ(index->anchor(), store->currentAnchor());
    for (const auto& [brainId, folder] : index->brainFolders()) {
      EXPECT_TRUE(mirror->stat(folder).isDirectory) << folder;
      for (const synckit::IndexEntry& row : index->entries(brainId)) {
        const FileState state = mirror->stat(row.path);
        EXPECT_TRUE(row.path.starts_with(folder + "/")) << row.path;
        EXPECT_EQ(state.isDirectory, row.isDirectory) << row.path;
        EXPECT_EQ(state.inode, row.inode) << row.path;
        if (!row.isDirectory) {
          EXPECT_EQ(state.size, row.size) << row.path;
        }
      }
    }
  }
};

class MirrorUpdaterTest : public ::testing::Test {
 protected:
  World world;
};

TEST_F(MirrorUpdaterTest, MaterialisesEveryBrainAndRetriesABlobWhoseHashDoesNotMatch) {
  const Uuid notes = world.addBrain("Notes", "notes");
  const Uuid twinA = world.addBrain("Twin", "twin-a");
  const Uuid twinB = world.addBrain("Twin", "twin-b");
  world.putFile(notes, "a/b/c/deep.md", "deep down");
  world.putFile(notes, "\u00dcn\u00efc\u00f8d\u00e9/\u65e5\u672c\u8a9e.md",
                "\u3053\u3093\u306b\u3061\u306f");
  world.putFile(notes, "empty.txt", "");
  world.putFile(notes, "pic.bin", std::string("\x89PNG\0\x01", 6), NodeKind::blob);
  world.putFile(notes, "bad.bin", "tampered", NodeKind::blob, "the real bytes");
  world.putFile(twinA, "a.md", "first twin");
  world.putFile(twinB, "b.md", "second twin");

  const auto first = world.updater->update();
  EXPECT_EQ(first.written, 6);
  EXPECT_EQ(first.failed, 1);
  const Tree expected{
      {"Notes", kFolder},
      {"Notes/a", kFolder},
      {"Notes/a/b", kFolder},
      {"Notes/a/b/c", kFolder},
      {"Notes/a/b/c/deep.md", "deep down"},
      {"Notes/\u00dcn\u00efc\u00f8d\u00e9", kFolder},
      {"Notes/\u00dcn\u00efc\u00f8d\u00e9/\u65e5\u672c\u8a9e.md", "\u3053\u3093\u306b\u3061\u306f"},
      {"Notes/empty.txt", ""},
      {"Notes/pic.bin", std::string("\x89PNG\0\x01", 6)},
      {"Twin (twin-a)", kFolder},
      {"Twin (twin-a)/a.md", "first twin"},
      {"Twin (twin-b)", kFolder},
      {"Twin (twin-b)/b.md", "second twin"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_TRUE(world.staged().empty());
  const auto badNode = world.store->nodeAtPath(notes, "bad.bin");
  EXPECT_EQ(world.index->retries(),
            (std::vector<std::pair<Uuid, std::string>>{{notes, badNode->nodeId}}));
  world.expectIndexMatchesDisk();
  EXPECT_EQ(world.store->ownWriteCount(notes, "a/b/c/deep.md"), 1);
  EXPECT_EQ(world.store->ownWriteCount(notes, "a/b"), 1);
  EXPECT_EQ(world.store->ownWriteCount(notes, ""), 1);
  const auto progress = synckit::ProviderProgressFile::read(world.progressFile());
  ASSERT_TRUE(progress);
  EXPECT_TRUE(progress->idle);
  EXPECT_EQ(progress->filesRemaining, 0);

  // The server mends the blob: the retry fetches that one file and nothing else.
  world.setServed(notes, "bad.bin", "the real bytes", true);
  const std::size_t requests = world.transport.requestCount();
  const auto second = world.updater->update();
  EXPECT_EQ(second.written, 1);
  EXPECT_EQ(second.failed, 0);
  EXPECT_EQ(world.transport.requestCount(), requests + 1);
  EXPECT_EQ(contentOf(world.mirrorPath / "Notes/bad.bin"), "the real bytes");
  EXPECT_TRUE(world.index->retries().empty());
  EXPECT_EQ(world.updater->update(), MirrorUpdater::Summary{});
  EXPECT_EQ(world.transport.requestCount(), requests + 1);
}

TEST_F(MirrorUpdaterTest, RemoteChangesRenameAndTrashWithoutDownloadingAgain) {
  const Uuid notes = world.materialiseSample();
  const std::size_t requests = world.transport.requestCount();
  const auto inode = [&](const std::string& path) { return world.mirror->stat(path).inode; };
  const auto docsInode = inode("Notes/docs");

  world.changeSample(notes);
  world.store->upsertBrain({notes, "notes", "Journal", std::nullopt});
  world.store->recordChange(synckit::SyncItemIdentifier::brain(notes), false);

  const auto done = world.updater->update();
  EXPECT_EQ(done.written, 1);
  EXPECT_EQ(done.trashed, 1);
  EXPECT_EQ(world.transport.requestCount(), requests + 1);
  const Tree expected{{"Journal", kFolder},
                      {"Journal/archive", kFolder},
                      {"Journal/archive/docs", kFolder},
                      {"Journal/archive/docs/a.md", "alpha"},
                      {"Journal/archive/docs/sub", kFolder},
                      {"Journal/archive/docs/sub/b.md", "beta"},
                      {"Journal/top.md", "new top"},
                      {"Journal/one.md", "second"},
                      {"Journal/two.md", "first"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_EQ(inode("Journal/archive/docs"), docsInode);  // renamed once, not made anew
  EXPECT_TRUE(world.staged().empty());
  EXPECT_EQ(treeOf(world.trashFiles()), (Tree{{"gone", kFolder}, {"gone/x.md", "doomed"}}));
  EXPECT_TRUE(fs::exists(world.temp / "data" / "Trash" / "info" / "gone.trashinfo"));
  world.expectIndexMatchesDisk();
  EXPECT_EQ(world.store->ownWriteCount(notes, "archive/docs"), 1);

  // A revoked brain's folder goes to the trash whole and is forgotten.
  synckit::BrainGrants::apply({}, *world.store);
  world.updater->update();
  EXPECT_EQ(world.tree(), Tree{});
  EXPECT_TRUE(fs::is_directory(world.trashFiles() / "Journal" / "archive" / "docs"));
  EXPECT_TRUE(world.index->brainFolders().empty());
  EXPECT_TRUE(world.index->entries(notes).empty());
}

TEST_F(MirrorUpdaterTest, LocalEditsAndFilesTheProviderDidNotWriteAreKept) {
  const Uuid notes = world.addBrain("Notes", "notes");
  world.putFile(notes, "edited.md", "server v1");
  world.putFile(notes, "folder/edited.md", "server inside");
  world.putFile(notes, "folder/clean.md", "clean");
  world.updater->update();

  writeFile(world.mirrorPath / "Notes/edited.md", "my edit");
  writeFile(world.mirrorPath / "Notes/folder/edited.md", "my other edit");
  writeFile(world.mirrorPath / "Notes/mine.md", "mine");
  writeFile(world.mirrorPath / "Notes/same.md", "same bytes");
  world.putFile(notes, "edited.md", "server v2");
  world.deleteNode(notes, "folder");
  world.putFile(notes, "mine.md", "theirs");
  world.putFile(notes, "same.md", "same bytes");

  const auto done = world.updater->update();
  EXPECT_EQ(done.adopted, 1);
  EXPECT_EQ(done.written, 0);
  EXPECT_EQ(done.kept, 3);
  const Tree expected{{"Notes", kFolder},        {"Notes/edited.md", "my edit"},
                      {"Notes/folder", kFolder}, {"Notes/folder/edited.md", "my other edit"},
                      {"Notes/mine.md", "mine"}, {"Notes/same.md", "same bytes"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_EQ(treeOf(world.trashFiles()), (Tree{{"clean.md", "clean"}}));
  EXPECT_TRUE(world.index->entryAtPath("Notes/same.md").has_value());
  EXPECT_FALSE(world.index->entryAtPath("Notes/folder/edited.md").has_value());
  EXPECT_FALSE(world.index->entryAtPath("Notes/mine.md").has_value());
  EXPECT_TRUE(world.index->retries().empty());  // left for the conflict handling, not retried
}

TEST_F(MirrorUpdaterTest, UnsafePathsAreSkippedAndNothingIsWrittenOutsideTheMirror) {
  const Uuid notes = world.addBrain("Notes", "notes");
  world.putFile(notes, "ok.md", "fine");
  world.updater->update();
  const fs::path outside = world.temp / "outside";
  writeFile(outside / "target.md", "precious");
  fs::create_directory_symlink(outside, world.mirrorPath / "Notes" / "link");
  fs::create_symlink(outside / "target.md", world.mirrorPath / "Notes" / "file-link.md");

  synckit::NodeRecord escape;
  escape.brainId = notes;
  escape.nodeId = "escape";
  escape.path = "a/../../escape.md";
  escape.contentVersion = 1;
  world.store->upsertNode(escape);
  world.store->recordChange(synckit::SyncItemIdentifier::node(notes, "escape"), false);
  world.setServed(notes, escape.path, "out", false);
  world.putFile(notes, "link/inside.md", "through the link");
  world.putFile(notes, "file-link.md", "over the link");
  world.putFile(notes, "after.md", "still done");

  const auto done = world.updater->update();
  EXPECT_EQ(done.written, 1);
  EXPECT_EQ(done.skipped, 2);
  EXPECT_EQ(world.skips, (std::vector<std::string>{"a/../../escape.md", "link/inside.md"}));
  EXPECT_EQ(treeOf(outside), (Tree{{"target.md", "precious"}}));
  EXPECT_EQ(entryNames(world.temp / "home"), std::set<std::string>{"Halvark"});
  EXPECT_EQ(entryNames(world.temp.path()), (std::set<std::string>{"container", "home", "outside"}));
  const Tree expected{{"Notes", kFolder},
                      {"Notes/after.md", "still done"},
                      {"Notes/file-link.md", "->" + (outside / "target.md").string()},
                      {"Notes/link", "->" + outside.string()},
                      {"Notes/ok.md", "fine"}};
  EXPECT_EQ(world.tree(), expected);
  EXPECT_TRUE(world.staged().empty());

  // Each is reported once, however often it comes round.
  world.store->touchContent(notes, "escape");
  world.updater->update();
  EXPECT_EQ(world.skips.size(), 2u);
}

// A crash anywhere in an update (every store and index commit, file put in
// place and item trashed is a point where one is simulated, the objects
// then opened afresh) leaves a state that the next update completes.
TEST(MirrorUpdaterCrashTest, AnUpdateCutShortAnywhereConvergesOnTheNextOne) {
  const Tree expected{{"Notes", kFolder},
                      {"Notes/archive", kFolder},
                      {"Notes/archive/docs", kFolder},
                      {"Notes/archive/docs/a.md", "alpha"},
                      {"Notes/archive/docs/sub", kFolder},
                      {"Notes/archive/docs/sub/b.md", "beta"},
                      {"Notes/new", kFolder},
                      {"Notes/new/c.md", "fresh"},
                      {"Notes/top.md", "new top"},
                      {"Notes/one.md", "second"},
                      {"Notes/two.md", "first"}};
  int reachedEnd = 0;
  for (int crashAt = 1; crashAt < 200 && reachedEnd == 0; ++crashAt) {
    SCOPED_TRACE("crash point " + std::to_string(crashAt));
    World world;
    const Uuid notes = world.materialiseSample();
    world.changeSample(notes);
    world.putFile(notes, "new/c.md", "fresh");

    std::atomic<int> reached = 0;  // renames run side by side
    synckit::setCrashPointHook([&] {
      if (++reached == crashAt) throw SimulatedCrash{};
    });
    try {
      world.updater->update();
      reachedEnd = crashAt;
    } catch (const SimulatedCrash&) {
    }
    synckit::setCrashPointHook({});
    world.reopen();
    world.updater->update();

    EXPECT_EQ(world.tree(), expected);
    EXPECT_TRUE(world.staged().empty());
    // One trashed folder, whatever name an interrupted attempt left it.
    const auto trashed = entryNames(world.trashFiles());
    ASSERT_EQ(trashed.size(), 1u);
    EXPECT_EQ(treeOf(world.trashFiles() / *trashed.begin()), (Tree{{"x.md", "doomed"}}));
    world.expectIndexMatchesDisk();
    if (::testing::Test::HasFailure()) break;
  }
  EXPECT_GT(reachedEnd, 5);
}

}  // namespace
}  // namespace halvark::provider
