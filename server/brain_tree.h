#pragma once
// The content of one brain: its nodes by path, its change feed and its read-only
// folders. Not thread-safe: the owner (SharedState) serialises every call.

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace devserver {

// Who made a feed entry, as the feed shows it.
struct Author {
  std::string kind = "member";  // "member" or "agent"
  std::string memberId;
  std::optional<std::string> harness;
  bool operator==(const Author&) const = default;
};

// Who performs a change. Entries carry the device so that its own feed can leave
// them out; a privileged actor (the control interface) ignores read-only folders.
struct Actor {
  Author author;
  std::string deviceId;
  bool privileged = false;
  bool operator==(const Actor&) const = default;
};

struct Node {
  std::string nodeId;
  std::string path;
  std::string title;
  bool isDirectory = false;
  std::string kind = "text";  // "text" or "blob"; folders are "text"
  std::string text;           // content of a text file
  std::optional<std::string> blobHash;
  std::optional<std::int64_t> blobSize;
  std::int64_t version = 0;  // bumped on every content change
  std::int64_t updatedAt = 0;
  bool operator==(const Node&) const = default;
};

// One committed change set. Its cursor is derived from `seq` and the tree's epoch.
struct FeedRecord {
  std::int64_t seq = 0;
  std::int64_t at = 0;
  Author author;
  std::string deviceId;
  nlohmann::json ops = nlohmann::json::array();
  bool operator==(const FeedRecord&) const = default;
};

struct WriteReceipt {
  std::string nodeId;
  std::string path;
  std::string cursor;
  bool operator==(const WriteReceipt&) const = default;
};

class BrainTree {
 public:
  // Entries the feed hands out per answer; the client asks again from the cursor.
  static constexpr std::size_t kPageSize = 500;

  BrainTree();
  BrainTree(std::string epoch, std::map<std::string, Node> nodes, std::vector<FeedRecord> log,
            std::set<std::string> readOnly);

  WriteReceipt putText(const Actor& actor, const std::string& path,
                       const std::optional<std::string>& title, const std::string& body,
                       std::int64_t now);
  WriteReceipt putBlob(const Actor& actor, const std::string& path,
                       const std::optional<std::string>& title, const std::string& blobHash,
                       std::int64_t blobSize, std::int64_t now);
  WriteReceipt makeFolder(const Actor& actor, const std::string& path, std::int64_t now);
  WriteReceipt move(const Actor& actor, const std::string& fromPath, const std::string& toPath,
                    std::int64_t now);
  // Deletes a file or a whole folder; returns the cursor of the entry.
  std::string remove(const Actor& actor, const std::string& path, std::int64_t now);

  // The feed answer for a cursor: entries after it (leaving out those written by
  // `deviceId`), or a reset snapshot when there is no cursor or it is unknown.
  nlohmann::json changes(const std::optional<std::string>& cursor,
                         const std::string& deviceId) const;

  const Node* find(const std::string& path) const;
  std::string headCursor() const;
  const std::string& epoch() const { return epoch_; }
  const std::map<std::string, Node>& nodes() const { return nodes_; }
  const std::vector<FeedRecord>& log() const { return log_; }

  void setReadOnly(const std::string& path, bool readOnly);
  const std::set<std::string>& readOnlyFolders() const { return readOnly_; }

  // Every cursor handed out so far becomes unknown: the next feed request resets.
  void invalidateCursors();

 private:
  struct NodeContent;
  WriteReceipt putFile(const Actor& actor, const std::string& path,
                       const std::optional<std::string>& title, const NodeContent& content,
                       std::int64_t now);
  void checkPath(const std::string& path) const;
  void checkWritable(const Actor& actor, const std::string& path) const;
  // Validates the ancestors of `path` (a file in the way is a conflict) and appends
  // mkdir ops for the missing ones; `create` says whether to make them now.
  void ensureAncestors(const std::string& path, std::int64_t now, nlohmann::json& ops, bool create);
  std::string commit(const Actor& actor, nlohmann::json ops, std::int64_t now);
  std::string cursorFor(std::int64_t seq) const;
  std::optional<std::int64_t> parseCursor(const std::string& cursor) const;
  nlohmann::json snapshot() const;

  std::string epoch_;
  std::map<std::string, Node> nodes_;
  std::vector<FeedRecord> log_;
  std::set<std::string> readOnly_;
};

// New server-issued node id.
std::string newNodeId();

// A write's answer on the wire: {"node":{"nodeId","path"},"cursor"}.
nlohmann::json writeResultJson(const WriteReceipt& receipt);

}  // namespace devserver
