#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "synckit/api/write_result.h"
#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/store/metadata_store.h"
#include "synckit/store/node_kind.h"
#include "synckit/store/node_record.h"

namespace synckit {

// Brings local actions into the store: journals them as pending changes for
// upload, and records what the server accepted (uploads, moves, deletes),
// items that stay local, and upload errors. Every node written or removed
// gets a change-log row so the file provider sees it.
//
// Each operation is atomic on its own (it runs in a write transaction that
// joins the caller's); callers that need several to succeed together wrap
// them in MetadataStore::writeTransaction. All throw the store's errors
// (SQLiteError, MetadataStoreError). Any thread.
namespace LocalMutations {

// Journal operations: each enqueues one pending change whose base cursor is
// the brain's stored cursor, and returns its id.
std::int64_t journalUpsert(MetadataStore& store, const Uuid& brainId, std::string_view path,
                           const std::optional<std::string>& nodeId, bool isNew, Timestamp now);
std::int64_t journalMove(MetadataStore& store, const Uuid& brainId,
                         const std::optional<std::string>& nodeId, std::string_view fromPath,
                         std::string_view toPath, Timestamp now);
std::int64_t journalDelete(MetadataStore& store, const Uuid& brainId,
                           const std::optional<std::string>& nodeId, std::string_view path,
                           Timestamp now);

// Records an upload the server accepted at result.node.path (blob hash and
// size only for a blob): a file already there keeps its id and title and
// gets content version + 1; a folder there goes with its subtree. Removes
// pending change `journalId` when given.
NodeRecord applyUpload(MetadataStore& store, const Uuid& brainId, const WriteResult& result,
                       NodeKind kind, const std::optional<std::string>& blobHash,
                       std::optional<std::int64_t> blobSize, std::optional<std::int64_t> journalId,
                       Timestamp now);

// Records a file at `path` that stays on this computer, replacing whatever
// was there.
NodeRecord applyLocalOnly(MetadataStore& store, const Uuid& brainId, std::string_view path,
                          const std::optional<std::string>& uploadError, Timestamp now);

// Records a folder at `path` that exists only locally; an existing folder
// there is returned unchanged, a file there is replaced.
NodeRecord applyLocalDirectory(MetadataStore& store, const Uuid& brainId, std::string_view path,
                               Timestamp now);

// Apply a move or delete the server accepted (a move onto an ignored name
// deletes, as the feed does) and remove pending change `journalId` when
// given. True when the tree changed.
bool applyMove(MetadataStore& store, const Uuid& brainId, std::string_view fromPath,
               std::string_view toPath, std::optional<std::int64_t> journalId, Timestamp now);
bool applyDelete(MetadataStore& store, const Uuid& brainId, std::string_view path,
                 std::optional<std::int64_t> journalId, Timestamp now);

// Sets (or with no message clears) the upload error of node `nodeId`; an
// unknown node is left alone.
void markUploadError(MetadataStore& store, const Uuid& brainId, std::string_view nodeId,
                     const std::optional<std::string>& message);

}  // namespace LocalMutations
}  // namespace synckit
