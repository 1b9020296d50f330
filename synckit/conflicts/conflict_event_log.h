#pragma once

#include <cstddef>
#include <vector>

#include "synckit/conflicts/conflict_event.h"
#include "synckit/store/metadata_store.h"

namespace synckit {

// The conflict events waiting to be shown, as one JSON array (oldest first,
// sorted keys, the sync JSON date form) under MetaKey::conflictEvents. Both
// processes append; the application drains. Every read-modify-write runs in
// one write transaction of the store, so concurrent appends and drains never
// lose or duplicate an event. Stateless; any thread.
namespace ConflictEventLog {

// The newest events kept; older ones are dropped on append.
inline constexpr std::size_t maxEvents = 50;

// Adds `events` after the stored ones and keeps the newest maxEvents. An
// empty `events` writes nothing. Throws the store's errors (SQLiteError) and
// DecodingError when the stored list is malformed (the list is then left as
// it was).
void append(const std::vector<ConflictEvent>& events, MetadataStore& store);

// Returns the stored events, oldest first, and removes the key. An empty log
// returns an empty list and writes nothing. Throws the store's errors, and
// DecodingError when the stored list is malformed, leaving it in place.
std::vector<ConflictEvent> drain(MetadataStore& store);

}  // namespace ConflictEventLog
}  // namespace synckit
