#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "synckit/api/blob_receipt.h"
#include "synckit/api/brain.h"
#include "synckit/api/changes_response.h"
#include "synckit/api/delete_result.h"
#include "synckit/api/device.h"
#include "synckit/api/feed_entry.h"
#include "synckit/api/node_ref.h"
#include "synckit/api/op.h"
#include "synckit/api/request_bodies.h"
#include "synckit/api/response_envelopes.h"
#include "synckit/api/snapshot_node.h"
#include "synckit/api/sync_api_error.h"
#include "synckit/api/write_result.h"
#include "synckit/base/bytes.h"
#include "synckit/base/timestamp.h"

namespace synckit {

// The one JSON configuration of the sync API. Every wire value is read and
// written through here so that member names, optional members, the date form
// and key order are the same everywhere. Stateless; callable from any thread.
namespace SyncJSON {

// Decodes one wire value from JSON text. Members not known to the type are
// ignored; an absent or null optional member becomes no value. Throws
// DecodingError (keyNotFound, typeMismatch, valueNotFound, dataCorrupted).
// Available for Brain, Device, Author, Op, FeedEntry, SnapshotNode,
// ChangesResponse, NodeRef, WriteResult, DeleteResult, BlobReceipt, the
// response envelopes and SyncAPIError::Envelope.
template <class T>
T decode(std::string_view json);

template <class T>
T decode(const Bytes& json) {
  return decode<T>(std::string_view(reinterpret_cast<const char*>(json.data()), json.size()));
}

// Encodes one wire value as compact JSON with its members in sorted key
// order; absent optionals are left out. Throws EncodingError for text that is
// not valid UTF-8. Available for the request bodies and every wire record
// that is not decode-only.
template <class T>
std::string encode(const T& value);

// The wire's date text: "2025-03-01T09:30:12.345Z", always UTC with three
// fractional digits.
std::string formatDate(Timestamp date);
// The wire's date text parsed; no value for anything else, including text
// without fractional seconds.
std::optional<Timestamp> parseDate(std::string_view text);

}  // namespace SyncJSON
}  // namespace synckit
