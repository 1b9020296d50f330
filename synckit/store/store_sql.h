#pragma once

#include <string_view>

namespace synckit {

// The statement texts of MetadataStore. They are fixed: the connection's
// statement cache is keyed on them, the other process on the same file runs
// the same ones, and the benchmark drives SQLite with them directly. Each is
// NUL-terminated (string literals), so data() can go straight to SQLite.
namespace StoreSQL {

#define HALVARK_NODE_COLUMNS                                                               \
  "brain_id, node_id, path, title, is_directory, kind, blob_hash, blob_size, updated_at, " \
  "content_version, local_only, upload_error"
#define HALVARK_PENDING_COLUMNS \
  "id, brain_id, node_id, change_kind, path, from_path, base_cursor, created_at"

inline constexpr std::string_view selectMeta = "SELECT value FROM meta WHERE key = ?";
inline constexpr std::string_view upsertMeta =
    "INSERT INTO meta (key, value) VALUES (?, ?)\nON CONFLICT(key) DO UPDATE SET value = "
    "excluded.value";
inline constexpr std::string_view deleteMeta = "DELETE FROM meta WHERE key = ?";

inline constexpr std::string_view upsertBrain =
    "INSERT INTO brains (brain_id, slug, name, cursor) VALUES (?, ?, ?, ?)\n"
    "ON CONFLICT(brain_id) DO UPDATE SET\n"
    "  slug = excluded.slug,\n"
    "  name = excluded.name,\n"
    "  cursor = COALESCE(excluded.cursor, brains.cursor)";
inline constexpr std::string_view selectBrain =
    "SELECT brain_id, slug, name, cursor FROM brains WHERE brain_id = ?";
inline constexpr std::string_view selectBrains =
    "SELECT brain_id, slug, name, cursor FROM brains ORDER BY slug, brain_id";
inline constexpr std::string_view selectCursor = "SELECT cursor FROM brains WHERE brain_id = ?";
inline constexpr std::string_view updateCursor = "UPDATE brains SET cursor = ? WHERE brain_id = ?";
inline constexpr std::string_view deleteBrain = "DELETE FROM brains WHERE brain_id = ?";

inline constexpr std::string_view selectNodes =
    "SELECT " HALVARK_NODE_COLUMNS " FROM nodes WHERE brain_id = ? ORDER BY path";
inline constexpr std::string_view selectNodeAtPath =
    "SELECT " HALVARK_NODE_COLUMNS " FROM nodes WHERE brain_id = ? AND path = ?";
inline constexpr std::string_view selectNodeWithId =
    "SELECT " HALVARK_NODE_COLUMNS " FROM nodes WHERE brain_id = ? AND node_id = ?";
inline constexpr std::string_view upsertNode = "INSERT INTO nodes (" HALVARK_NODE_COLUMNS
                                               ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)\n"
                                               "ON CONFLICT(brain_id, node_id) DO UPDATE SET\n"
                                               "  path = excluded.path,\n"
                                               "  title = excluded.title,\n"
                                               "  is_directory = excluded.is_directory,\n"
                                               "  kind = excluded.kind,\n"
                                               "  blob_hash = excluded.blob_hash,\n"
                                               "  blob_size = excluded.blob_size,\n"
                                               "  updated_at = excluded.updated_at,\n"
                                               "  content_version = excluded.content_version,\n"
                                               "  local_only = excluded.local_only,\n"
                                               "  upload_error = excluded.upload_error";
inline constexpr std::string_view deleteNode =
    "DELETE FROM nodes WHERE brain_id = ? AND node_id = ?";
inline constexpr std::string_view updateNodePath =
    "UPDATE nodes SET path = ? WHERE brain_id = ? AND node_id = ?";
inline constexpr std::string_view uploadErrorCount =
    "SELECT COUNT(*) FROM nodes WHERE brain_id = ? AND upload_error IS NOT NULL";
// Paths below "a" sort between "a/" and "a0" because '0' follows '/' in byte
// order; this keeps "ab" and "a0" out without a LIKE that would scan.
inline constexpr std::string_view selectDescendants =
    "SELECT " HALVARK_NODE_COLUMNS
    " FROM nodes\nWHERE brain_id = ? AND path > ? AND path < ?\nORDER BY path";
inline constexpr std::string_view selectTopLevel =
    "SELECT " HALVARK_NODE_COLUMNS
    " FROM nodes\nWHERE brain_id = ? AND instr(path, '/') = 0\nORDER BY path";
inline constexpr std::string_view selectChildren =
    "SELECT " HALVARK_NODE_COLUMNS
    " FROM nodes\nWHERE brain_id = ? AND path > ? AND path < ?\n"
    "  AND instr(substr(path, length(?) + 1), '/') = 0\nORDER BY path";

inline constexpr std::string_view enqueue =
    "INSERT INTO pending_changes\n"
    "  (brain_id, node_id, change_kind, path, from_path, base_cursor, created_at)\n"
    "VALUES (?, ?, ?, ?, ?, ?, ?)";
inline constexpr std::string_view selectPendingAll =
    "SELECT " HALVARK_PENDING_COLUMNS " FROM pending_changes ORDER BY id ASC";
inline constexpr std::string_view selectPendingOfBrain =
    "SELECT " HALVARK_PENDING_COLUMNS " FROM pending_changes WHERE brain_id = ? ORDER BY id ASC";
inline constexpr std::string_view selectPendingChange =
    "SELECT " HALVARK_PENDING_COLUMNS "\nFROM pending_changes WHERE id = ?";
inline constexpr std::string_view deletePendingChange = "DELETE FROM pending_changes WHERE id = ?";
inline constexpr std::string_view updatePendingBaseCursor =
    "UPDATE pending_changes SET base_cursor = ? WHERE id = ?";
inline constexpr std::string_view updatePendingPath =
    "UPDATE pending_changes SET path = ? WHERE id = ?";

inline constexpr std::string_view insertChange =
    "INSERT INTO changes_log (brain_id, item_identifier, deleted) VALUES (?, ?, ?)";
inline constexpr std::string_view maxAnchor = "SELECT MAX(anchor) FROM changes_log";
inline constexpr std::string_view selectChangesSince =
    "SELECT anchor, item_identifier, deleted FROM changes_log WHERE anchor > ? ORDER BY anchor "
    "ASC";

inline constexpr std::string_view insertOwnWrite =
    "INSERT INTO own_writes (brain_id, path) VALUES (?, ?)";
inline constexpr std::string_view consumeOwnWrite =
    "DELETE FROM own_writes WHERE id = (\n"
    "  SELECT id FROM own_writes WHERE brain_id = ? AND path = ? ORDER BY id ASC LIMIT 1\n"
    ")";
inline constexpr std::string_view ownWriteCount =
    "SELECT COUNT(*) FROM own_writes WHERE brain_id = ? AND path = ?";
inline constexpr std::string_view clearOwnWrites = "DELETE FROM own_writes WHERE brain_id = ?";

#undef HALVARK_NODE_COLUMNS
#undef HALVARK_PENDING_COLUMNS

}  // namespace StoreSQL
}  // namespace synckit
