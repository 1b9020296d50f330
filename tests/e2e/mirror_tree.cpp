#include "tests/e2e/mirror_tree.h"

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string_view>

#include "synckit/api/curl_transport.h"
#include "synckit/testing/eventually.h"

namespace halvark::e2e {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view stagingName = ".halvark-staging";

std::string base64Decode(std::string_view text) {
  static constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    const auto value = alphabet.find(c);
    if (value == std::string_view::npos) continue;  // padding
    buffer = ((buffer << 6) | static_cast<std::uint32_t>(value)) & 0xffffff;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xff));
    }
  }
  return out;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Entry& entry) {
  out << entry.kind;
  if (entry.kind == 'f') out << " (" << entry.bytes.size() << " bytes)";
  return out;
}

std::string readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

Tree diskTree(const fs::path& root) {
  Tree tree;
  std::error_code error;
  if (!fs::is_directory(fs::symlink_status(root, error))) return tree;
  for (auto it = fs::recursive_directory_iterator(root, error);
       !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
    const std::string relative = it->path().lexically_relative(root).string();
    if (relative == stagingName) {
      it.disable_recursion_pending();
      continue;
    }
    const auto status = it->symlink_status();
    if (fs::is_symlink(status)) {
      tree[relative] = {'l', ""};
    } else if (fs::is_directory(status)) {
      tree[relative] = {'d', ""};
    } else {
      tree[relative] = {'f', readAll(it->path())};
    }
  }
  return tree;
}

Tree serverTree(const std::string& baseURL, const synckit::Uuid& brain) {
  // Asked for uncompressed: the server would spend many seconds compressing
  // a large blob's base64 text.
  synckit::CurlTransport transport({.acceptEncoding = "identity"});
  synckit::HTTPRequest request;
  request.method = "GET";
  request.url = baseURL + "/_control/brains/" + brain.toLowerString() + "/tree";
  const synckit::HTTPResponse response = transport.send(request);
  EXPECT_EQ(response.status, 200);
  const auto answer = nlohmann::json::parse(synckit::toString(response.body));
  Tree tree;
  for (const auto& node : answer.at("nodes")) {
    const std::string path = node.at("path");
    if (node.at("isDirectory").get<bool>()) {
      tree[path] = {'d', ""};
    } else if (node.contains("base64")) {
      tree[path] = {'f', base64Decode(node.at("base64").get<std::string>())};
    } else {
      tree[path] = {'f', node.value("content", "")};
    }
  }
  return tree;
}

void expectMirrored(const fs::path& folder, const Tree& expected, std::chrono::milliseconds limit) {
  Tree mirrored;
  const bool same = synckit::testing::eventually(
      [&] {
        mirrored = diskTree(folder);
        return mirrored == expected;
      },
      limit, std::chrono::milliseconds(100));
  if (same) return;
  std::set<std::string> paths;
  for (const auto& [path, entry] : expected) paths.insert(path);
  for (const auto& [path, entry] : mirrored) paths.insert(path);
  for (const std::string& path : paths) {
    auto want = expected.find(path);
    auto have = mirrored.find(path);
    if (want == expected.end()) {
      ADD_FAILURE() << (folder / path) << " should not be there: " << have->second;
    } else if (have == mirrored.end()) {
      ADD_FAILURE() << (folder / path) << " is missing: " << want->second;
    } else if (want->second != have->second) {
      ADD_FAILURE() << (folder / path) << " differs: " << have->second << ", not " << want->second;
    }
  }
}

}  // namespace halvark::e2e
