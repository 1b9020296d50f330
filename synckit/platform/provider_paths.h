#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace synckit {

// Where the application and the file provider find each other: the mirror
// folder, the provider's files in the container and the signal it listens
// on. Nothing here touches the disk; the environment is read on each call.
namespace ProviderPaths {

// The folder at the top of the mirror where downloads are staged before
// they are renamed into place; never a brain's folder.
inline constexpr std::string_view stagingFolderName = ".halvark-staging";

// The shared-defaults key that names the mirror folder.
inline constexpr std::string_view mirrorFolderKey = "HVMirrorFolder";

// $HALVARK_MIRROR, else the "HVMirrorFolder" default, else $HOME/Halvark.
// Each must be an absolute path; an empty or relative one is skipped, since
// the provider's working directory says nothing about where the user wants
// the mirror. Throws PosixError(ENOENT) when none is usable.
std::filesystem::path mirrorFolder();

// The provider's local index (SQLite), beside the store's database.
std::filesystem::path indexURL(const std::filesystem::path& container);
// The registered file-provider domains (JSON, written by the application).
std::filesystem::path domainsURL(const std::filesystem::path& container);
// The provider's download progress (JSON, written by the provider).
std::filesystem::path progressURL(const std::filesystem::path& container);
// Locked by the running provider, so that one container has one provider.
std::filesystem::path instanceLockURL(const std::filesystem::path& container);

// The SyncSignal name the provider listens on to re-read the working set:
// the application identifier followed by ".working-set".
std::string workingSetSignalName();

}  // namespace ProviderPaths
}  // namespace synckit
