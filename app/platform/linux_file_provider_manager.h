#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/core/file_provider_manager.h"
#include "app/platform/provider_supervisor.h"
#include "synckit/base/logger.h"

namespace halvark {

// The file-provider service on Linux: the domains are a list in the shared
// container (DomainRegistry), and the provider is the halvark-provider
// process, which this manager starts when a domain is added and keeps
// running (ProviderSupervisor) until the last domain is removed. The
// provider serves the whole container, so one process serves every domain.
//
// halvark-provider is $HALVARK_PROVIDER_PATH when set, else the file of that
// name beside the running executable, else the first one on PATH.
//
// Destroying the manager stops the provider as well (SIGTERM, then SIGKILL
// after the grace period): an application that quits takes its provider
// with it, so that no provider outlives the process meant to restart it.
// The domain stays registered, and adding it again resumes the provider.
//
// Thread-safe.
class LinuxFileProviderManager final : public FileProviderManager {
 public:
  // The container, the provider's location and the environment the provider
  // is started with are read now, once.
  explicit LinuxFileProviderManager(ProviderSupervisor::Timing timing = {});
  ~LinuxFileProviderManager() override;
  LinuxFileProviderManager(const LinuxFileProviderManager&) = delete;
  LinuxFileProviderManager& operator=(const LinuxFileProviderManager&) = delete;

  // Registers (or updates) the domain and starts the provider unless it
  // runs. Throws synckit::Error when there is no provider to start, and the
  // registry's PosixError.
  void addDomain(const FileProviderDomain& domain) override;
  // Forgets the domain and, when it was the last one, stops the provider;
  // the mirror folder stays as it is. Throws synckit::Error for a domain
  // that is not registered.
  void removeDomain(const FileProviderDomain& domain) override;
  std::vector<FileProviderDomain> domains() override;
  std::shared_ptr<DomainManager> manager(const FileProviderDomain& domain) override;

 private:
  const std::filesystem::path container_;
  const std::optional<std::filesystem::path> executable_;
  const std::vector<std::string> environment_;
  const ProviderSupervisor::Timing timing_;
  const synckit::Logger logger_;
  // Serialises changes of the registry and of the supervisor; readers of
  // the registry need no lock, its file is replaced atomically.
  std::mutex lifecycle_;
  std::unique_ptr<ProviderSupervisor> supervisor_;
};

}  // namespace halvark
