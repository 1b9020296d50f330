#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "synckit/base/bytes.h"
#include "synckit/base/uuid.h"
#include "synckit/platform/conflict_spool.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/node_record.h"

namespace synckit {

// A node together with what an upload of it starts from: the bytes kept for
// a local-only node, or the brain's cursor for a synced one. A plain value;
// safe to copy between threads.
struct NodeContentSnapshot {
  NodeRecord record;
  // The local bytes held in the spool for a local-only node.
  std::optional<Bytes> retainedBytes;
  // The brain's stored cursor when the node is synced.
  std::optional<std::string> cursor;

  // Nothing when the brain has no node `nodeId`. Throws FileNotFoundError
  // (naming the node's path) for a local-only node whose bytes are not in
  // the spool, PosixError when the spool cannot be read, and the store's
  // errors. Reads the node and the cursor under the store's lock; any
  // thread.
  static std::optional<NodeContentSnapshot> read(const Uuid& brainId, std::string_view nodeId,
                                                 MetadataStore& store, const ConflictSpool& spool);

  bool operator==(const NodeContentSnapshot&) const = default;
};

}  // namespace synckit
