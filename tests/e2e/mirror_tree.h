#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <ostream>
#include <string>

#include "synckit/base/uuid.h"

namespace halvark::e2e {

// One entry of a tree: a folder ('d'), a file with its bytes ('f'), or a
// symbolic link ('l').
struct Entry {
  char kind = 'f';
  std::string bytes;
  bool operator==(const Entry&) const = default;
};
// Entries by "/"-separated path relative to the tree's root.
using Tree = std::map<std::string, Entry>;

std::ostream& operator<<(std::ostream& out, const Entry& entry);

// The whole content of `file`; empty when it cannot be read.
std::string readAll(const std::filesystem::path& file);

// Everything below `root`; links are not followed, and the provider's
// staging folder at the top is left out. Empty when `root` is no folder.
Tree diskTree(const std::filesystem::path& root);

// The brain's tree as the devserver at `baseURL` holds it, content included,
// read through its control interface. Reports failures through gtest.
Tree serverTree(const std::string& baseURL, const synckit::Uuid& brain);

// Waits until `folder` holds exactly `expected`; on failure reports through
// gtest each path that differs.
void expectMirrored(const std::filesystem::path& folder, const Tree& expected,
                    std::chrono::milliseconds limit = std::chrono::seconds(30));

}  // namespace halvark::e2e
