#pragma once

#include <string>
#include <vector>

#include "synckit/api/author.h"
#include "synckit/api/op.h"
#include "synckit/base/timestamp.h"

namespace synckit {

// One committed change set of a brain's change feed. `cursor` is the opaque
// feed position just after this entry.
struct FeedEntry {
  std::string cursor;
  Timestamp at;
  Author author;
  std::vector<Op> ops;

  bool operator==(const FeedEntry&) const = default;
};

}  // namespace synckit
