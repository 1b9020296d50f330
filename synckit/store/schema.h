#pragma once

#include <cstdint>

namespace synckit {

class SQLiteDatabase;

// The on-disk layout of the metadata store and the steps that bring an older
// file up to date. The version lives in PRAGMA user_version.
//
// Called by MetadataStore right after it opens its connection, on whatever
// thread constructs the store.
namespace Schema {

inline constexpr std::int64_t currentVersion = 2;

// The file's user_version; 0 when the pragma gives no integer.
std::int64_t version(SQLiteDatabase& database);

// Brings the file to currentVersion inside one BEGIN IMMEDIATE transaction,
// so a failure leaves it at the version it had. A file from a newer build is
// refused with code 17 and left alone.
void migrate(SQLiteDatabase& database);

}  // namespace Schema
}  // namespace synckit
