#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "synckit/base/bytes.h"
#include "synckit/store/sqlite_value.h"

namespace synckit {

// One result row, one value per result column in column order. The typed
// accessors are lenient: a value of another kind reads as the neutral value
// (0, "", absent) so that row conversion decides what counts as damage.
// Indices must name columns the caller's own statement selects.
struct SQLiteRow {
  std::vector<SQLiteValue> values;

  std::int64_t integer(std::size_t index) const;
  std::optional<std::int64_t> optionalInteger(std::size_t index) const;
  std::string string(std::size_t index) const;
  std::optional<std::string> optionalString(std::size_t index) const;
  std::optional<Bytes> data(std::size_t index) const;
  bool isNull(std::size_t index) const;

  bool operator==(const SQLiteRow&) const = default;
};

}  // namespace synckit
