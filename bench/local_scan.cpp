// bench/local_scan.sh's program: builds a mirror of many small files with
// the local index the provider would have written for it, and runs the
// start-up rescan over it.
//
//   local_scan build MIRROR INDEX FOLDERS FILES_PER_FOLDER BYTES
//   local_scan scan MIRROR INDEX
//
// `build` is not timed. `scan` opens the index and scans, as the provider
// does at start; it prints how many changes it found and fails when there
// are any, since the mirror it is given is the one the index describes.

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "provider/mirror_root.h"
#include "provider/mirror_scanner.h"
#include "synckit/base/crypto.h"
#include "synckit/store/local_index.h"

namespace {

using halvark::provider::MirrorRoot;

constexpr const char* kBrainFolder = "Bench";

int build(const std::filesystem::path& mirrorPath, const std::filesystem::path& indexPath,
          int folders, int perFolder, int bytes) {
  MirrorRoot mirror(mirrorPath);
  synckit::LocalIndex index(indexPath);
  const synckit::Uuid brainId = *synckit::Uuid::parse("0B1E5C4A-7D2F-4E8B-9A63-15C0FFEE0001");
  index.setBrainFolder(brainId, kBrainFolder);
  auto put = [&](const std::string& path, bool isDirectory, std::string hash,
                 const halvark::provider::FileState& state) {
    index.put({brainId, "node-" + path, path, isDirectory, 1, state.size, state.mtimeNanoseconds,
               state.inode, std::move(hash)});
  };
  index.transaction([&] {
    for (int f = 0; f < folders; ++f) {
      const std::string folder = std::string(kBrainFolder) + "/folder-" + std::to_string(f);
      mirror.ensureDirectory(folder);
      put(folder, true, "", mirror.stat(folder));
      for (int i = 0; i < perFolder; ++i) {
        const std::string path = folder + "/note-" + std::to_string(i) + ".md";
        std::string text = "# " + path + "\n";
        text.resize(static_cast<std::size_t>(bytes), 'x');
        const synckit::Bytes content = synckit::toBytes(text);
        auto staged = mirror.stage();
        staged.write(content);
        staged.flushedWithFileSystem();  // a benchmark's files need not outlive a crash
        const auto state = staged.commit(path, MirrorRoot::StagedFile::FolderFlush::byCaller);
        put(path, false, synckit::hexLower(synckit::sha256(content)), state);
      }
    }
  });
  return 0;
}

int scan(const std::filesystem::path& mirrorPath, const std::filesystem::path& indexPath) {
  MirrorRoot mirror(mirrorPath);
  synckit::LocalIndex index(indexPath);
  int unsupported = 0;
  const auto changes = halvark::provider::MirrorScanner::scan(
      mirror, index, [&](const std::string&, const std::string&) { ++unsupported; });
  std::printf("%zu changes, %d left out\n", changes.size(), unsupported);
  return changes.empty() && unsupported == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "build" && argc == 7) {
      return build(argv[2], argv[3], std::stoi(argv[4]), std::stoi(argv[5]), std::stoi(argv[6]));
    }
    if (verb == "scan" && argc == 4) return scan(argv[2], argv[3]);
    std::fprintf(stderr,
                 "usage: local_scan build MIRROR INDEX FOLDERS FILES_PER_FOLDER BYTES\n"
                 "       local_scan scan MIRROR INDEX\n");
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "local_scan: %s\n", error.what());
    return 1;
  }
}
