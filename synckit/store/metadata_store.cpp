#include "synckit/store/metadata_store.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <unordered_map>

#include "synckit/base/error.h"
#include "synckit/base/metadata_store_error.h"
#include "synckit/store/schema.h"
#include "synckit/store/store_sql.h"

namespace synckit {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

// The arguments of one statement call. Text arguments view their values, so
// every value they view, formatted ids and dates included, must be a
// variable or a temporary of the full expression that runs the statement.
template <class... Arguments>
std::array<SQLiteArgument, sizeof...(Arguments)> arguments(const Arguments&... items) {
  return {items...};
}

SQLiteArgument text(std::string_view value) { return SQLiteArgument::text(value); }
SQLiteArgument text(const Uuid::Text& value) { return text({value.data(), value.size()}); }
SQLiteArgument text(const Timestamp::Text& value) { return text({value.data(), value.size()}); }
SQLiteArgument integer(std::int64_t value) { return SQLiteArgument::integer(value); }
SQLiteArgument boolean(bool value) { return SQLiteArgument::boolean(value); }
SQLiteArgument optionalText(const std::optional<std::string>& value) {
  return SQLiteArgument::optionalText(value);
}

std::string inQuotes(const std::string& value) { return "\"" + value + "\""; }

Uuid uuidAt(const SQLiteRow& row, std::size_t index) {
  std::string text = row.string(index);
  auto uuid = Uuid::parse(text);
  if (!uuid) throw MetadataStoreError::corruptRow("invalid UUID " + inQuotes(text));
  return *uuid;
}

Timestamp timestampAt(const SQLiteRow& row, std::size_t index) {
  std::string text = row.string(index);
  auto timestamp = Timestamp::parse(text);
  if (!timestamp) throw MetadataStoreError::corruptRow("invalid date " + inQuotes(text));
  return *timestamp;
}

bool booleanAt(const SQLiteRow& row, std::size_t index) { return row.integer(index) != 0; }

BrainRecord brainFromRow(const SQLiteRow& row) {
  return BrainRecord{uuidAt(row, 0), row.string(1), row.string(2), row.optionalString(3)};
}

NodeRecord nodeFromRow(const SQLiteRow& row) {
  NodeRecord node;
  node.brainId = uuidAt(row, 0);
  node.nodeId = row.string(1);
  node.path = row.string(2);
  node.title = row.string(3);
  node.isDirectory = booleanAt(row, 4);
  std::string kind = row.string(5);
  auto nodeKind = parseNodeKind(kind);
  if (!nodeKind) throw MetadataStoreError::corruptRow("invalid node kind " + inQuotes(kind));
  node.kind = *nodeKind;
  node.blobHash = row.optionalString(6);
  node.blobSize = row.optionalInteger(7);
  node.updatedAt = timestampAt(row, 8);
  node.contentVersion = row.integer(9);
  node.localOnly = booleanAt(row, 10);
  node.uploadError = row.optionalString(11);
  return node;
}

PendingChange pendingChangeFromRow(const SQLiteRow& row) {
  PendingChange change;
  change.id = row.optionalInteger(0);
  change.brainId = uuidAt(row, 1);
  change.nodeId = row.optionalString(2);
  std::string kind = row.string(3);
  auto changeKind = parsePendingChangeKind(kind);
  if (!changeKind) throw MetadataStoreError::corruptRow("invalid change kind " + inQuotes(kind));
  change.changeKind = *changeKind;
  change.path = row.string(4);
  change.fromPath = row.optionalString(5);
  change.baseCursor = row.optionalString(6);
  change.createdAt = timestampAt(row, 7);
  return change;
}

// Binds a node row with the brain id and date formatted into `brainId` and
// `updatedAt`, which outlive the statement call.
std::array<SQLiteArgument, 12> nodeArguments(const NodeRecord& node, const Uuid::Text& brainId,
                                             const Timestamp::Text& updatedAt) {
  return arguments(text(brainId), text(node.nodeId), text(node.path), text(node.title),
                   boolean(node.isDirectory), text(toString(node.kind)),
                   optionalText(node.blobHash), SQLiteArgument::optionalInteger(node.blobSize),
                   text(updatedAt), integer(node.contentVersion), boolean(node.localOnly),
                   optionalText(node.uploadError));
}

}  // namespace

std::unique_ptr<MetadataStore> MetadataStore::open(const std::filesystem::path& databaseURL) {
  std::error_code error;
  std::filesystem::create_directories(databaseURL.parent_path(), error);
  if (error) throw PosixError(error.value());
  return std::make_unique<MetadataStore>(databaseURL);
}

MetadataStore::MetadataStore(const std::filesystem::path& path) : database_(path) {
  Schema::migrate(database_);
}

std::optional<std::string> MetadataStore::metaValue(std::string_view key) {
  Lock guard(lock_);
  auto rows = database_.query(StoreSQL::selectMeta, arguments(text(key)));
  if (rows.empty()) return std::nullopt;
  return rows.front().optionalString(0);
}

void MetadataStore::setMeta(std::string_view key, const std::optional<std::string>& value) {
  Lock guard(lock_);
  if (value) {
    database_.execute(StoreSQL::upsertMeta, arguments(text(key), text(*value)));
  } else {
    database_.execute(StoreSQL::deleteMeta, arguments(text(key)));
  }
}

void MetadataStore::upsertBrain(const BrainRecord& brain) {
  Lock guard(lock_);
  database_.execute(StoreSQL::upsertBrain, arguments(text(brain.brainId.toText()), text(brain.slug),
                                                     text(brain.name), optionalText(brain.cursor)));
}

std::optional<BrainRecord> MetadataStore::brain(const Uuid& brainId) {
  Lock guard(lock_);
  auto rows = database_.query(StoreSQL::selectBrain, arguments(text(brainId.toText())));
  if (rows.empty()) return std::nullopt;
  return brainFromRow(rows.front());
}

std::vector<BrainRecord> MetadataStore::brains() {
  Lock guard(lock_);
  std::vector<BrainRecord> brains;
  for (const SQLiteRow& row : database_.query(StoreSQL::selectBrains))
    brains.push_back(brainFromRow(row));
  return brains;
}

std::optional<std::string> MetadataStore::cursor(const Uuid& brainId) {
  Lock guard(lock_);
  auto rows = database_.query(StoreSQL::selectCursor, arguments(text(brainId.toText())));
  if (rows.empty()) return std::nullopt;
  return rows.front().optionalString(0);
}

void MetadataStore::setCursor(const Uuid& brainId, const std::optional<std::string>& cursor) {
  Lock guard(lock_);
  database_.execute(StoreSQL::updateCursor,
                    arguments(optionalText(cursor), text(brainId.toText())));
  if (database_.changes() == 0) throw MetadataStoreError::unknownBrain(brainId);
}

void MetadataStore::deleteBrain(const Uuid& brainId) {
  Lock guard(lock_);
  database_.execute(StoreSQL::deleteBrain, arguments(text(brainId.toText())));
}

std::vector<NodeRecord> MetadataStore::queryNodes(std::string_view sql,
                                                  std::span<const SQLiteArgument> bindings) {
  std::vector<NodeRecord> nodes;
  auto rows = database_.query(sql, bindings);
  nodes.reserve(rows.size());
  for (const SQLiteRow& row : rows) nodes.push_back(nodeFromRow(row));
  return nodes;
}

std::optional<NodeRecord> MetadataStore::queryNode(std::string_view sql,
                                                   std::span<const SQLiteArgument> bindings) {
  auto rows = database_.query(sql, bindings);
  if (rows.empty()) return std::nullopt;
  return nodeFromRow(rows.front());
}

std::vector<NodeRecord> MetadataStore::nodes(const Uuid& brainId) {
  Lock guard(lock_);
  return queryNodes(StoreSQL::selectNodes, arguments(text(brainId.toText())));
}

std::optional<NodeRecord> MetadataStore::nodeAtPath(const Uuid& brainId, std::string_view path) {
  Lock guard(lock_);
  return queryNode(StoreSQL::selectNodeAtPath, arguments(text(brainId.toText()), text(path)));
}

std::optional<NodeRecord> MetadataStore::nodeWithId(const Uuid& brainId, std::string_view nodeId) {
  Lock guard(lock_);
  return queryNode(StoreSQL::selectNodeWithId, arguments(text(brainId.toText()), text(nodeId)));
}

void MetadataStore::upsertNode(const NodeRecord& node) {
  Lock guard(lock_);
  database_.execute(StoreSQL::upsertNode,
                    nodeArguments(node, node.brainId.toText(), node.updatedAt.toText()));
}

bool MetadataStore::deleteNode(const Uuid& brainId, std::string_view nodeId) {
  Lock guard(lock_);
  database_.execute(StoreSQL::deleteNode, arguments(text(brainId.toText()), text(nodeId)));
  return database_.changes() > 0;
}

void MetadataStore::updateNodePath(const Uuid& brainId, std::string_view nodeId,
                                   std::string_view newPath) {
  Lock guard(lock_);
  database_.execute(StoreSQL::updateNodePath,
                    arguments(text(newPath), text(brainId.toText()), text(nodeId)));
}

std::int64_t MetadataStore::uploadErrorCount(const Uuid& brainId) {
  Lock guard(lock_);
  auto rows = database_.query(StoreSQL::uploadErrorCount, arguments(text(brainId.toText())));
  return rows.empty() ? 0 : rows.front().integer(0);
}

std::vector<NodeRecord> MetadataStore::descendants(const Uuid& brainId, std::string_view path) {
  Lock guard(lock_);
  if (path.empty()) return nodes(brainId);
  const std::string base(path);
  return queryNodes(StoreSQL::selectDescendants,
                    arguments(text(brainId.toText()), text(base + "/"), text(base + "0")));
}

std::vector<NodeRecord> MetadataStore::subtree(const Uuid& brainId, std::string_view path) {
  Lock guard(lock_);
  std::vector<NodeRecord> result;
  if (auto top = nodeAtPath(brainId, path)) result.push_back(std::move(*top));
  auto below = descendants(brainId, path);
  result.insert(result.end(), std::make_move_iterator(below.begin()),
                std::make_move_iterator(below.end()));
  return result;
}

std::vector<NodeRecord> MetadataStore::children(const Uuid& brainId, std::string_view parentPath) {
  Lock guard(lock_);
  if (parentPath.empty())
    return queryNodes(StoreSQL::selectTopLevel, arguments(text(brainId.toText())));
  const std::string prefix = std::string(parentPath) + "/";
  return queryNodes(StoreSQL::selectChildren,
                    arguments(text(brainId.toText()), text(prefix),
                              text(std::string(parentPath) + "0"), text(prefix)));
}

bool MetadataStore::touchContent(const Uuid& brainId, std::string_view nodeId) {
  return writeTransaction([&] {
    auto node = nodeWithId(brainId, nodeId);
    if (!node || node->isDirectory) return false;
    node->contentVersion += 1;
    upsertNode(*node);
    recordChange(SyncItemIdentifier::node(brainId, node->nodeId), false);
    return true;
  });
}

std::vector<PendingChange> MetadataStore::queryPendingChanges(
    std::string_view sql, std::span<const SQLiteArgument> bindings) {
  std::vector<PendingChange> changes;
  for (const SQLiteRow& row : database_.query(sql, bindings)) {
    changes.push_back(pendingChangeFromRow(row));
  }
  return changes;
}

std::int64_t MetadataStore::enqueue(const PendingChange& change) {
  Lock guard(lock_);
  database_.execute(
      StoreSQL::enqueue,
      arguments(text(change.brainId.toText()), optionalText(change.nodeId),
                text(toString(change.changeKind)), text(change.path), optionalText(change.fromPath),
                optionalText(change.baseCursor), text(change.createdAt.toText())));
  return database_.lastInsertRowID();
}

std::vector<PendingChange> MetadataStore::pendingChanges(const std::optional<Uuid>& brainId) {
  Lock guard(lock_);
  if (!brainId) return queryPendingChanges(StoreSQL::selectPendingAll, {});
  return queryPendingChanges(StoreSQL::selectPendingOfBrain, arguments(text(brainId->toText())));
}

std::optional<PendingChange> MetadataStore::pendingChange(std::int64_t id) {
  Lock guard(lock_);
  auto changes = queryPendingChanges(StoreSQL::selectPendingChange, arguments(integer(id)));
  if (changes.empty()) return std::nullopt;
  return std::move(changes.front());
}

void MetadataStore::removePendingChange(std::int64_t id) {
  Lock guard(lock_);
  database_.execute(StoreSQL::deletePendingChange, arguments(integer(id)));
}

void MetadataStore::setPendingBaseCursor(std::int64_t id,
                                         const std::optional<std::string>& baseCursor) {
  Lock guard(lock_);
  database_.execute(StoreSQL::updatePendingBaseCursor,
                    arguments(optionalText(baseCursor), integer(id)));
}

void MetadataStore::setPendingPath(std::int64_t id, std::string_view path) {
  Lock guard(lock_);
  database_.execute(StoreSQL::updatePendingPath, arguments(text(path), integer(id)));
}

std::int64_t MetadataStore::recordChange(const SyncItemIdentifier& identifier, bool deleted) {
  Lock guard(lock_);
  const auto brainId = identifier.brainId();
  const Uuid::Text brainText = brainId ? brainId->toText() : Uuid::Text{};
  // Node rows, by far the most, reuse the brain text formatted above, and
  // every row of a thread reuses one buffer (it is only bound, not kept).
  thread_local std::string identifierText;
  if (const auto* node = std::get_if<SyncItemIdentifier::Node>(&identifier.value)) {
    SyncItemIdentifier::writeNodeString(identifierText, brainText, node->nodeId);
  } else {
    identifierText = identifier.string();
  }
  database_.execute(StoreSQL::insertChange, arguments(brainId ? text(brainText) : text(""),
                                                      text(identifierText), boolean(deleted)));
  return database_.lastInsertRowID();
}

std::int64_t MetadataStore::currentAnchor() {
  Lock guard(lock_);
  auto rows = database_.query(StoreSQL::maxAnchor);
  return rows.empty() ? 0 : rows.front().integer(0);
}

ChangeSet MetadataStore::changes(std::int64_t sinceAnchor) {
  Lock guard(lock_);
  return database_.transaction(false, [&] {
    struct Latest {
      std::int64_t anchor;
      bool deleted;
    };
    auto rows = database_.query(StoreSQL::selectChangesSince, arguments(integer(sinceAnchor)));
    // Rows arrive in anchor order, so the last write per identifier wins.
    std::unordered_map<std::string, Latest> latest;
    latest.reserve(rows.size());
    for (SQLiteRow& row : rows) {
      latest.insert_or_assign(row.string(1), Latest{row.integer(0), row.integer(2) != 0});
    }
    std::vector<std::pair<Latest, std::string>> ordered;
    ordered.reserve(latest.size());
    for (auto& [identifier, last] : latest) ordered.emplace_back(last, identifier);
    std::sort(ordered.begin(), ordered.end(),
              [](const auto& a, const auto& b) { return a.first.anchor < b.first.anchor; });

    ChangeSet set;
    for (const auto& [last, text] : ordered) {
      auto identifier = SyncItemIdentifier::parse(text);
      if (!identifier) continue;
      if (last.deleted) {
        set.deleted.push_back(std::move(*identifier));
      } else if (auto present = item(*identifier)) {
        set.changed.push_back(std::move(*present));
      } else {
        set.deleted.push_back(std::move(*identifier));
      }
    }
    set.anchor = currentAnchor();
    return set;
  });
}

std::optional<std::int64_t> MetadataStore::exclusiveChangeCount() {
  Lock guard(lock_);
  if (!database_.holdsWriteLock()) return std::nullopt;
  return database_.totalChanges();
}

std::vector<SyncItem> MetadataStore::items(const SyncItemIdentifier& container) {
  Lock guard(lock_);
  std::vector<SyncItem> result;
  auto appendNodes = [&](std::vector<NodeRecord> nodes) {
    result.reserve(nodes.size());
    for (NodeRecord& node : nodes) result.push_back(SyncItem::node(std::move(node)));
  };
  switch (container.kind()) {
    case SyncItemIdentifier::Kind::root:
      for (BrainRecord& brain : brains()) result.push_back(SyncItem::brain(std::move(brain)));
      break;
    case SyncItemIdentifier::Kind::brain:
      appendNodes(children(std::get<SyncItemIdentifier::Brain>(container.value).brainId, ""));
      break;
    case SyncItemIdentifier::Kind::node: {
      const auto& node = std::get<SyncItemIdentifier::Node>(container.value);
      auto folder = nodeWithId(node.brainId, node.nodeId);
      if (folder && folder->isDirectory) appendNodes(children(node.brainId, folder->path));
      break;
    }
  }
  return result;
}

std::optional<SyncItem> MetadataStore::item(const SyncItemIdentifier& identifier) {
  Lock guard(lock_);
  switch (identifier.kind()) {
    case SyncItemIdentifier::Kind::brain:
      if (auto record = brain(std::get<SyncItemIdentifier::Brain>(identifier.value).brainId)) {
        return SyncItem::brain(std::move(*record));
      }
      return std::nullopt;
    case SyncItemIdentifier::Kind::node: {
      const auto& node = std::get<SyncItemIdentifier::Node>(identifier.value);
      if (auto record = nodeWithId(node.brainId, node.nodeId)) {
        return SyncItem::node(std::move(*record));
      }
      return std::nullopt;
    }
    case SyncItemIdentifier::Kind::root:
      return std::nullopt;
  }
  return std::nullopt;
}

void MetadataStore::recordOwnWrite(const Uuid& brainId, std::string_view path) {
  Lock guard(lock_);
  database_.execute(StoreSQL::insertOwnWrite, arguments(text(brainId.toText()), text(path)));
}

bool MetadataStore::consumeOwnWrite(const Uuid& brainId, std::string_view path) {
  Lock guard(lock_);
  database_.execute(StoreSQL::consumeOwnWrite, arguments(text(brainId.toText()), text(path)));
  return database_.changes() > 0;
}

std::int64_t MetadataStore::ownWriteCount(const Uuid& brainId, std::string_view path) {
  Lock guard(lock_);
  auto rows =
      database_.query(StoreSQL::ownWriteCount, arguments(text(brainId.toText()), text(path)));
  return rows.empty() ? 0 : rows.front().integer(0);
}

void MetadataStore::clearOwnWrites(const Uuid& brainId) {
  Lock guard(lock_);
  database_.execute(StoreSQL::clearOwnWrites, arguments(text(brainId.toText())));
}

}  // namespace synckit
