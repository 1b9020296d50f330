#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// Reading and writing whole files in the provider's tests.
namespace halvark::provider::testing {

// The bytes of `file`; empty when it cannot be read.
inline std::string contentOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Replaces `file` with `content`, making the folders on the way.
inline void writeFile(const std::filesystem::path& file, const std::string& content) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace halvark::provider::testing
