#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "synckit/store/metadata_store.h"

namespace synckit {

// Sync errors that the file provider found (an item it could not show, for
// instance) and that the application's recent-errors list should show, as
// one JSON array of texts under MetaKey::syncErrors. The provider appends;
// the application drains. Each read-modify-write is one write transaction,
// so an append racing a drain is neither lost nor shown twice. Stateless;
// any thread.
namespace SyncErrorLog {

// The newest messages kept; older ones are dropped on append.
inline constexpr std::size_t maxMessages = 20;

// Adds `messages` after the stored ones and keeps the newest maxMessages.
// Throws the store's errors and EncodingError for text that is not UTF-8.
// A stored list that cannot be read is replaced: it only ever held texts
// for the eye.
void append(const std::vector<std::string>& messages, MetadataStore& store);

// Returns the stored messages, oldest first, and removes the key. Throws
// the store's errors.
std::vector<std::string> drain(MetadataStore& store);

}  // namespace SyncErrorLog
}  // namespace synckit
