// The shared defaults file, which users edit by hand: reading never fails,
// and a write either refuses a file it cannot read or keeps every other
// value while storing the new one.

#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "fuzz/fuzz_check.h"
#include "synckit/base/error.h"
#include "synckit/platform/shared_defaults.h"

using namespace synckit;

namespace {

// One scratch directory per process, in memory when the system offers it,
// since every write syncs the file.
const std::filesystem::path& scratchFile() {
  static const std::filesystem::path file = [] {
    std::string pattern = std::filesystem::exists("/dev/shm") ? "/dev/shm/halvark-fuzz-XXXXXX"
                                                              : "/tmp/halvark-fuzz-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    static const std::filesystem::path directory = pattern;
    std::atexit([] { std::filesystem::remove_all(directory); });
    return directory / "defaults.json";
  }();
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto& file = scratchFile();
  std::ofstream(file, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  SharedDefaults defaults(file);
  auto before = defaults.string("HVBaseURLOverride");
  auto other = defaults.string("other");

  try {
    defaults.set("fuzz", "value");
  } catch (const DecodingError&) {
    FUZZ_CHECK(!before && !other);
    return 0;
  }
  FUZZ_CHECK(defaults.string("fuzz") == "value");
  // Rewriting keeps the size in proportion to the input, however deeply the
  // values nest (compact numbers such as 1e9 may still grow a few times).
  FUZZ_CHECK(std::filesystem::file_size(file) <= 8 * size + 64);
  FUZZ_CHECK(defaults.string("HVBaseURLOverride") == before);
  FUZZ_CHECK(defaults.string("other") == other);
  defaults.set("fuzz", std::nullopt);
  FUZZ_CHECK(!defaults.string("fuzz"));
  FUZZ_CHECK(defaults.string("HVBaseURLOverride") == before);
  return 0;
}
