#pragma once

#include <map>
#include <string>
#include <vector>

#include "synckit/base/uuid.h"
#include "synckit/store/brain_record.h"

namespace synckit {

// The folder name (one path component) of every brain, by brain id. A
// brain's folder is its name. A name that is not a usable component (empty,
// ".", "..", the staging folder's name, holding "/" or NUL, or longer than
// 255 bytes) gives way to the slug, and to the brain id's first 8 hex digits
// when the slug is unusable too. When several brains would get the same
// folder, every one of them gets " (" + slug + ")" appended, then
// " (" + first 8 of id + ")" if still equal, then " (" + whole id + ")",
// which no two brains share; the name before a suffix is shortened (at a
// character boundary) to keep the whole within 255 bytes. The same brains
// give the same names whatever their order. Pure; any thread.
std::map<Uuid, std::string> brainFolderNames(const std::vector<BrainRecord>& brains);

}  // namespace synckit
