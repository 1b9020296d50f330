#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "synckit/store/metadata_store.h"
#include "synckit/store/sqlite_database.h"
#include "synckit/testing/temporary_directory.h"

namespace synckit::testing {

// A store with one brain (cursor "c0") for the engine tests, plus a second
// connection that reads the tables the store has no listing for (the raw
// change log, own writes) and installs fault-injecting triggers as another
// process would.
class FeedTestStore {
 public:
  // Everything a page may touch, for "exactly as before" comparisons.
  struct State {
    std::vector<NodeRecord> nodes;
    std::vector<std::string> log;
    std::vector<std::string> ownWrites;
    std::vector<PendingChange> pending;
    std::optional<std::string> cursor;
    bool operator==(const State&) const = default;
  };

  FeedTestStore() { store->upsertBrain(BrainRecord{brainId, "notes", "Notes", std::string("c0")}); }

  // The change log after `sinceAnchor`, "+nodeId" (changed) or "-nodeId"
  // (deleted) per row; rows of other items keep their full identifier.
  std::vector<std::string> log(std::int64_t sinceAnchor = 0) {
    const std::string prefix = "node:" + brainId.toString() + ":";
    std::vector<std::string> rows;
    for (const SQLiteRow& row : observer.query(
             "SELECT item_identifier, deleted FROM changes_log WHERE anchor > ? ORDER BY anchor",
             {SQLiteValue::integer(sinceAnchor)})) {
      std::string identifier = row.string(0);
      if (identifier.starts_with(prefix)) identifier.erase(0, prefix.size());
      rows.push_back((row.integer(1) != 0 ? "-" : "+") + identifier);
    }
    return rows;
  }

  std::vector<std::string> paths() {
    std::vector<std::string> result;
    for (const NodeRecord& node : store->nodes(brainId)) result.push_back(node.path);
    return result;
  }

  // "path=nodeId" per node, in path order.
  std::vector<std::string> tree() {
    std::vector<std::string> result;
    for (const NodeRecord& node : store->nodes(brainId))
      result.push_back(node.path + "=" + node.nodeId);
    return result;
  }

  NodeRecord node(std::string_view path) { return store->nodeAtPath(brainId, path).value(); }

  State state() {
    State state{
        store->nodes(brainId), log(), {}, store->pendingChanges(brainId), store->cursor(brainId)};
    for (const SQLiteRow& row : observer.query("SELECT path FROM own_writes ORDER BY id"))
      state.ownWrites.push_back(row.string(0));
    return state;
  }

  // A node as the server would have sent it (or, `localOnly`, as only this
  // machine has it), titled by its name and written straight to the store.
  NodeRecord put(std::string nodeId, std::string path, bool isDirectory = false,
                 bool localOnly = false) {
    NodeRecord node;
    node.brainId = brainId;
    node.nodeId = std::move(nodeId);
    node.path = std::move(path);
    node.title = node.path.substr(node.path.rfind('/') + 1);
    node.isDirectory = isDirectory;
    node.contentVersion = isDirectory ? 0 : 1;
    node.updatedAt = *Timestamp::parse("2025-01-01T00:00:00.000Z");
    node.localOnly = localOnly;
    store->upsertNode(node);
    return node;
  }

  const Uuid brainId = *Uuid::parse("6F1D3C2B-8A4E-4F10-9B7C-1E2D3F4A5B6C");
  TemporaryDirectory directory;
  std::unique_ptr<MetadataStore> store = MetadataStore::open(directory / "sync.sqlite");
  SQLiteDatabase observer{directory / "sync.sqlite"};
};

}  // namespace synckit::testing
