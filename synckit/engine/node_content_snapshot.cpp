#include "synckit/engine/node_content_snapshot.h"

#include "synckit/base/error.h"

namespace synckit {

std::optional<NodeContentSnapshot> NodeContentSnapshot::read(const Uuid& brainId,
                                                             std::string_view nodeId,
                                                             MetadataStore& store,
                                                             const ConflictSpool& spool) {
  return store.withLock([&]() -> std::optional<NodeContentSnapshot> {
    std::optional<NodeRecord> record = store.nodeWithId(brainId, nodeId);
    if (!record) return std::nullopt;
    if (record->localOnly) {
      // The server has no copy of a local-only node; its bytes wait in the spool.
      std::optional<Bytes> bytes = spool.read(ConflictSpool::nodeKey(record->nodeId));
      if (!bytes) throw FileNotFoundError(record->path);
      return NodeContentSnapshot{std::move(*record), std::move(bytes), std::nullopt};
    }
    std::optional<std::string> cursor = store.cursor(brainId);
    return NodeContentSnapshot{std::move(*record), std::nullopt, std::move(cursor)};
  });
}

}  // namespace synckit
