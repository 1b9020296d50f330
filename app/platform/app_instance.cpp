#include "app/platform/app_instance.h"

#include "app/platform/browser_web_authenticator.h"
#include "app/platform/control_commands.h"
#include "app/platform/control_protocol.h"
#include "app/platform/control_server.h"
#include "app/platform/linux_file_provider_manager.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/atomic_file.h"
#include "synckit/platform/file_lock.h"
#include "synckit/platform/provider_paths.h"

namespace halvark {
namespace {

// The lock of one of the places an instance owns; null when another
// instance holds it.
std::unique_ptr<synckit::FileLock> lockIn(const std::filesystem::path& file) {
  synckit::AtomicFile::createDirectories(file.parent_path(), 0700);
  return synckit::FileLock::tryLock(file);
}

}  // namespace

// Members are destroyed bottom up: the control server first, so that no
// request reaches a model that is going, then the model, then the provider
// manager (which stops the provider), the authenticator and the locks.
struct AppInstance::Parts {
  // One instance per container, and one per control socket.
  std::unique_ptr<synckit::FileLock> containerLock;
  std::unique_ptr<synckit::FileLock> socketLock;
  std::filesystem::path container;
  BrowserWebAuthenticator authenticator;
  LinuxFileProviderManager providers;
  std::unique_ptr<AppModel> model;
  std::unique_ptr<ControlCommands> commands;
  std::unique_ptr<ControlServer> server;
};

AppInstance::AppInstance(MainQueue& mainQueue, Options options)
    : parts_(std::make_unique<Parts>()) {
  Parts& parts = *parts_;
  parts.container = synckit::AppGroup::containerURL();
  parts.containerLock = lockIn(parts.container / "halvark.lock");
  if (!parts.containerLock) throw AlreadyRunningError();
  parts.socketLock = lockIn(ControlProtocol::instanceLockPath());
  if (!parts.socketLock) throw AlreadyRunningError();

  parts.model = std::make_unique<AppModel>(AppModel::Platform{
      .mainQueue = mainQueue,
      .authenticator = parts.authenticator,
      .fileProviderManager = parts.providers,
      .makeTokenStore = {},
      .transport = nullptr,
      .hostName = {},
  });
  parts.commands = std::make_unique<ControlCommands>(ControlCommands::Instance{
      .mainQueue = mainQueue,
      .model = *parts.model,
      .authenticator = parts.authenticator,
      .progress = [this] { return progress(); },
      .quit = std::move(options.quit),
  });
  // Both locks are ours, so a socket file that is there was left by an
  // instance that was killed.
  parts.server = std::make_unique<ControlServer>(
      ControlProtocol::socketPath(),
      [commands = parts.commands.get()](
          const nlohmann::json& request, const std::shared_ptr<ControlServer::Channel>& channel,
          std::stop_token stop) { return commands->handle(request, channel, std::move(stop)); });
}

AppInstance::~AppInstance() = default;

AppModel& AppInstance::model() noexcept { return *parts_->model; }

BrowserWebAuthenticator& AppInstance::authenticator() noexcept { return parts_->authenticator; }

std::optional<synckit::ProviderProgress> AppInstance::progress() const {
  auto progress =
      synckit::ProviderProgressFile::read(synckit::ProviderPaths::progressURL(parts_->container));
  if (!progress || progress->idle) return std::nullopt;
  return progress;
}

}  // namespace halvark
