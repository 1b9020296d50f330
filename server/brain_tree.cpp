#include "server/brain_tree.h"

#include "server/brain_path.h"
#include "server/crypto.h"
#include "server/service_error.h"
#include "server/wire_time.h"

namespace devserver {

using nlohmann::json;

struct BrainTree::NodeContent {
  std::string kind;
  std::string text;
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;
};

namespace {

std::string quoted(const std::string& path) { return "\u201c" + path + "\u201d"; }

json authorJson(const Author& author) {
  json out = {{"kind", author.kind}, {"memberId", author.memberId}};
  if (author.harness) out["harness"] = *author.harness;
  return out;
}

}  // namespace

std::string newNodeId() { return "nd_" + randomHex(10); }

json writeResultJson(const WriteReceipt& receipt) {
  return {{"node", {{"nodeId", receipt.nodeId}, {"path", receipt.path}}},
          {"cursor", receipt.cursor}};
}

BrainTree::BrainTree() : epoch_(randomHex(6)) {}

BrainTree::BrainTree(std::string epoch, std::map<std::string, Node> nodes,
                     std::vector<FeedRecord> log, std::set<std::string> readOnly)
    : epoch_(std::move(epoch)),
      nodes_(std::move(nodes)),
      log_(std::move(log)),
      readOnly_(std::move(readOnly)) {}

void BrainTree::checkPath(const std::string& path) const {
  if (!isValidBrainPath(path)) {
    throw ServiceError::badRequest("Invalid path: " + quoted(path));
  }
}

void BrainTree::checkWritable(const Actor& actor, const std::string& path) const {
  if (actor.privileged) return;
  for (const auto& folder : readOnly_) {
    // Both directions: writing inside a read-only folder, and moving or deleting
    // a folder that contains one.
    if (isWithin(path, folder) || isWithin(folder, path)) {
      throw ServiceError::forbiddenSubtree("The folder " + quoted(folder) + " is read-only");
    }
  }
}

void BrainTree::ensureAncestors(const std::string& path, std::int64_t now, json& ops, bool create) {
  for (const auto& ancestor : ancestorPaths(path)) {
    auto it = nodes_.find(ancestor);
    if (it != nodes_.end()) {
      if (!it->second.isDirectory) {
        throw ServiceError::conflict("A file is in the way at " + quoted(ancestor));
      }
      continue;
    }
    std::string title = lastComponent(ancestor);
    if (create) {
      Node folder;
      folder.nodeId = newNodeId();
      folder.path = ancestor;
      folder.title = title;
      folder.isDirectory = true;
      folder.updatedAt = now;
      nodes_.emplace(ancestor, std::move(folder));
      ops.push_back({{"kind", "mkdir"}, {"path", ancestor}, {"title", title}});
    }
  }
}

std::string BrainTree::commit(const Actor& actor, json ops, std::int64_t now) {
  FeedRecord record;
  record.seq = static_cast<std::int64_t>(log_.size()) + 1;
  record.at = now;
  record.author = actor.author;
  record.deviceId = actor.deviceId;
  record.ops = std::move(ops);
  log_.push_back(std::move(record));
  return cursorFor(log_.back().seq);
}

WriteReceipt BrainTree::putFile(const Actor& actor, const std::string& path,
                                const std::optional<std::string>& title, const NodeContent& content,
                                std::int64_t now) {
  checkPath(path);
  checkWritable(actor, path);
  json ops = json::array();
  ensureAncestors(path, now, ops, false);  // validate before changing anything
  auto it = nodes_.find(path);
  if (it != nodes_.end() && it->second.isDirectory) {
    throw ServiceError::conflict("A folder already exists at " + quoted(path));
  }
  ensureAncestors(path, now, ops, true);

  if (it == nodes_.end()) {
    Node node;
    node.nodeId = newNodeId();
    node.path = path;
    node.title = title.value_or(defaultTitle(path));
    node.kind = content.kind;
    node.text = content.text;
    node.blobHash = content.blobHash;
    node.blobSize = content.blobSize;
    node.version = 1;
    node.updatedAt = now;
    ops.push_back({{"kind", "create"},
                   {"path", path},
                   {"title", node.title},
                   {"tags", json::array()},
                   {"isDirectory", false},
                   {"nodeKind", node.kind}});
    it = nodes_.emplace(path, std::move(node)).first;
  } else {
    Node& node = it->second;
    bool bodyChanged = node.kind != content.kind || node.text != content.text ||
                       node.blobHash != content.blobHash || node.blobSize != content.blobSize;
    if (title) node.title = *title;
    if (bodyChanged) {
      node.kind = content.kind;
      node.text = content.text;
      node.blobHash = content.blobHash;
      node.blobSize = content.blobSize;
      node.version += 1;
    }
    node.updatedAt = now;
    ops.push_back({{"kind", "update"},
                   {"path", path},
                   {"title", node.title},
                   {"tags", json::array()},
                   {"bodyChanged", bodyChanged},
                   {"nodeKind", node.kind}});
  }
  std::string cursor = commit(actor, std::move(ops), now);
  return {it->second.nodeId, path, cursor};
}

WriteReceipt BrainTree::putText(const Actor& actor, const std::string& path,
                                const std::optional<std::string>& title, const std::string& body,
                                std::int64_t now) {
  return putFile(actor, path, title, NodeContent{"text", body, std::nullopt, std::nullopt}, now);
}

WriteReceipt BrainTree::putBlob(const Actor& actor, const std::string& path,
                                const std::optional<std::string>& title,
                                const std::string& blobHash, std::int64_t blobSize,
                                std::int64_t now) {
  return putFile(actor, path, title, NodeContent{"blob", "", blobHash, blobSize}, now);
}

WriteReceipt BrainTree::makeFolder(const Actor& actor, const std::string& path, std::int64_t now) {
  checkPath(path);
  checkWritable(actor, path);
  json ops = json::array();
  ensureAncestors(path, now, ops, false);
  if (auto it = nodes_.find(path); it != nodes_.end()) {
    if (it->second.isDirectory) {
      return {it->second.nodeId, path, headCursor()};
    }
    throw ServiceError::conflict("A file already exists at " + quoted(path));
  }
  ensureAncestors(path, now, ops, true);
  Node folder;
  folder.nodeId = newNodeId();
  folder.path = path;
  folder.title = lastComponent(path);
  folder.isDirectory = true;
  folder.updatedAt = now;
  ops.push_back({{"kind", "mkdir"}, {"path", path}, {"title", folder.title}});
  std::string nodeId = folder.nodeId;
  nodes_.emplace(path, std::move(folder));
  return {nodeId, path, commit(actor, std::move(ops), now)};
}

WriteReceipt BrainTree::move(const Actor& actor, const std::string& fromPath,
                             const std::string& toPath, std::int64_t now) {
  checkPath(fromPath);
  checkPath(toPath);
  checkWritable(actor, fromPath);
  checkWritable(actor, toPath);
  auto source = nodes_.find(fromPath);
  if (source == nodes_.end()) {
    throw ServiceError::notFound("Nothing exists at " + quoted(fromPath));
  }
  if (nodes_.count(toPath) > 0) {
    throw ServiceError::conflict("Something already exists at " + quoted(toPath));
  }
  if (isWithin(toPath, fromPath)) {
    throw ServiceError::badRequest("Cannot move " + quoted(fromPath) + " into itself");
  }
  json ops = json::array();
  ensureAncestors(toPath, now, ops, false);
  ensureAncestors(toPath, now, ops, true);

  // The node itself, then its descendants ("from/" sorts them together).
  std::vector<std::string> moving{fromPath};
  std::string prefix = fromPath + "/";
  for (auto it = nodes_.lower_bound(prefix);
       it != nodes_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
    moving.push_back(it->first);
  }
  std::string nodeId = source->second.nodeId;
  for (const auto& oldPath : moving) {
    auto handle = nodes_.extract(oldPath);
    std::string newPath = toPath + oldPath.substr(fromPath.size());
    handle.key() = newPath;
    handle.mapped().path = newPath;
    nodes_.insert(std::move(handle));
  }
  ops.push_back({{"kind", "move"}, {"path", fromPath}, {"newPath", toPath}});
  return {nodeId, toPath, commit(actor, std::move(ops), now)};
}

std::string BrainTree::remove(const Actor& actor, const std::string& path, std::int64_t now) {
  checkPath(path);
  checkWritable(actor, path);
  auto it = nodes_.find(path);
  if (it == nodes_.end()) {
    throw ServiceError::notFound("Nothing exists at " + quoted(path));
  }
  std::string prefix = path + "/";
  auto end = nodes_.lower_bound(prefix);
  while (end != nodes_.end() && end->first.compare(0, prefix.size(), prefix) == 0) ++end;
  nodes_.erase(it, end);
  // Read-only marks do not outlive the folder they were on.
  for (auto ro = readOnly_.begin(); ro != readOnly_.end();) {
    ro = isWithin(*ro, path) ? readOnly_.erase(ro) : std::next(ro);
  }
  return commit(actor, json::array({{{"kind", "delete"}, {"path", path}}}), now);
}

const Node* BrainTree::find(const std::string& path) const {
  auto it = nodes_.find(path);
  return it == nodes_.end() ? nullptr : &it->second;
}

std::string BrainTree::cursorFor(std::int64_t seq) const {
  return epoch_ + "." + std::to_string(seq);
}

std::string BrainTree::headCursor() const {
  return cursorFor(static_cast<std::int64_t>(log_.size()));
}

std::optional<std::int64_t> BrainTree::parseCursor(const std::string& cursor) const {
  if (cursor.size() <= epoch_.size() + 1 || cursor.compare(0, epoch_.size(), epoch_) != 0 ||
      cursor[epoch_.size()] != '.') {
    return std::nullopt;
  }
  std::int64_t seq = 0;
  for (std::size_t i = epoch_.size() + 1; i < cursor.size(); ++i) {
    char c = cursor[i];
    if (c < '0' || c > '9' || seq > static_cast<std::int64_t>(log_.size())) return std::nullopt;
    seq = seq * 10 + (c - '0');
  }
  if (seq > static_cast<std::int64_t>(log_.size())) return std::nullopt;
  return seq;
}

json BrainTree::snapshot() const {
  json nodes = json::array();
  for (const auto& [path, node] : nodes_) {
    json item = {{"nodeId", node.nodeId}, {"path", node.path},
                 {"title", node.title},   {"isDirectory", node.isDirectory},
                 {"kind", node.kind},     {"updatedAt", formatWireTime(node.updatedAt)}};
    if (node.blobHash) item["blobHash"] = *node.blobHash;
    if (node.blobSize) item["blobSize"] = *node.blobSize;
    nodes.push_back(std::move(item));
  }
  return nodes;
}

json BrainTree::changes(const std::optional<std::string>& cursor,
                        const std::string& deviceId) const {
  std::optional<std::int64_t> after = cursor ? parseCursor(*cursor) : std::nullopt;
  if (!after) {
    return {{"reset", true}, {"cursor", headCursor()}, {"snapshot", snapshot()}};
  }
  json entries = json::array();
  std::int64_t last = *after;
  std::size_t scanned = 0;
  for (auto seq = *after + 1; seq <= static_cast<std::int64_t>(log_.size()); ++seq) {
    if (scanned++ == kPageSize) break;
    const FeedRecord& record = log_[static_cast<std::size_t>(seq - 1)];
    last = seq;
    // The device already knows what it wrote; its cursor still moves past it.
    if (!deviceId.empty() && record.deviceId == deviceId) continue;
    entries.push_back({{"cursor", cursorFor(seq)},
                       {"at", formatWireTime(record.at)},
                       {"author", authorJson(record.author)},
                       {"ops", record.ops}});
  }
  return {{"reset", false}, {"cursor", cursorFor(last)}, {"entries", std::move(entries)}};
}

void BrainTree::setReadOnly(const std::string& path, bool readOnly) {
  checkPath(path);
  if (readOnly) {
    readOnly_.insert(path);
  } else {
    readOnly_.erase(path);
  }
}

void BrainTree::invalidateCursors() {
  std::string next;
  do {
    next = randomHex(6);
  } while (next == epoch_);
  epoch_ = next;
}

}  // namespace devserver
