#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "provider/freedesktop_trash.h"
#include "provider/mirror_root.h"
#include "provider/mirror_updater.h"
#include "provider/testing/file_contents.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/crypto.h"
#include "synckit/engine/batch_applier.h"
#include "synckit/store/local_index.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/scoped_environment.h"
#include "synckit/testing/temporary_directory.h"

// What the provider's tests share: a container with a store and an index, a
// mirror with its trash, a fake server and the updater over them.
namespace halvark::provider::testing {

namespace fs = std::filesystem;
using synckit::NodeKind;
using synckit::Uuid;
using Tree = std::map<std::string, std::string>;

inline constexpr char kBase[] = "https://sync.example.test";
inline constexpr char kFolder[] = "/";  // how a folder shows in a Tree

// Every item below `root` (the staging folder aside): files by content,
// folders as "/", links as "->target".
inline Tree treeOf(const fs::path& root) {
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

inline std::string percentDecoded(std::string_view text) {
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

// A container, a mirror, a trash and a fake server whose files the tests
// set, with the updater over them. reopen() starts every object afresh on
// the same files, as a restarted provider would.
struct MirrorTestWorld {
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

  MirrorTestWorld() {
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
    return fs::exists(staging) ? synckit::testing::entryNames(staging) : std::set<std::string>{};
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

}  // namespace halvark::provider::testing
