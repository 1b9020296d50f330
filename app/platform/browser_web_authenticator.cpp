#include "app/platform/browser_web_authenticator.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/base/url.h"

extern char** environ;

namespace halvark {
namespace {

// How often a waiting sign-in looks whether its opener gave up.
constexpr std::chrono::milliseconds openerPollInterval{100};

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The wait status of `pid` once it ended; absent while it runs. A child
// that someone else reaped counts as ended well.
std::optional<int> reap(pid_t pid) {
  for (;;) {
    int status = 0;
    const pid_t result = ::waitpid(pid, &status, WNOHANG);
    if (result == pid) return status;
    if (result == 0) return std::nullopt;
    if (errno != EINTR) return 0;
  }
}

}  // namespace

struct BrowserWebAuthenticator::Wait {
  std::string url;
  std::string scheme;  // lower case
  std::optional<std::string> callback;
  bool canceled = false;
  bool openerFailed = false;
  pid_t opener = -1;  // while it runs
};

std::vector<std::string> BrowserWebAuthenticator::defaultOpener() {
  const char* configured = std::getenv("HALVARK_BROWSER");
  if (configured != nullptr && *configured != '\0') return {configured};
  return {"xdg-open"};
}

BrowserWebAuthenticator::BrowserWebAuthenticator(std::vector<std::string> opener)
    : opener_(std::move(opener)) {}

BrowserWebAuthenticator::~BrowserWebAuthenticator() {
  // Openers still running are left to finish on their own; waiting for a
  // browser here could hold up quitting for as long as the browser runs.
  for (pid_t pid : openers_) reap(pid);
}

std::string BrowserWebAuthenticator::authenticate(const std::string& url,
                                                  const std::string& callbackScheme) {
  auto wait = std::make_shared<Wait>();
  wait->url = url;
  wait->scheme = lowercase(callbackScheme);
  std::shared_ptr<const Presenter> presenter;
  {
    std::lock_guard lock(mutex_);
    std::erase_if(openers_, [](pid_t pid) { return reap(pid).has_value(); });
    if (wait_) wait_->canceled = true;
    wait_ = wait;
    presenter = presenter_;
  }
  changed_.notify_all();

  // Whatever ends the wait, it is no longer the one callbacks go to, and an
  // opener still running is reaped later.
  struct Finish {
    BrowserWebAuthenticator& self;
    const std::shared_ptr<Wait>& wait;
    ~Finish() {
      std::lock_guard lock(self.mutex_);
      if (self.wait_ == wait) self.wait_.reset();
      if (wait->opener > 0) self.openers_.push_back(wait->opener);
    }
  } finish{*this, wait};

  if (presenter) {
    (*presenter)(url);
  } else {
    const pid_t pid = startOpener(url);
    std::lock_guard lock(mutex_);
    wait->opener = pid;
  }

  const std::stop_token stop = synckit::currentStopToken();
  std::unique_lock lock(mutex_);
  for (;;) {
    if (wait->callback) return *wait->callback;
    if (wait->canceled) throw WebAuthenticationCanceled();
    if (wait->openerFailed) throw WebAuthenticatorError::couldNotStart();
    if (stop.stop_requested()) throw synckit::CancellationError();
    if (wait->opener > 0) {
      if (auto status = reap(wait->opener)) {
        wait->opener = -1;
        wait->openerFailed = !(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
        continue;
      }
    }
    changed_.wait_for(lock, stop, openerPollInterval,
                      [&] { return wait->callback || wait->canceled || wait->openerFailed; });
  }
}

pid_t BrowserWebAuthenticator::startOpener(const std::string& url) {
  if (opener_.empty()) throw WebAuthenticatorError::couldNotStart();
  std::vector<std::string> arguments = opener_;
  arguments.push_back(url);
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  // The application may block signals in all its threads to read them from
  // a descriptor; the browser must get them as any program does. Its own
  // process group keeps a Ctrl-C meant for a terminal daemon away from it.
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_init(&actions);
  sigset_t none;
  sigset_t defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD}) sigaddset(&defaults, signal);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &defaults);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  pid_t pid = -1;
  const int result = ::posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  if (result != 0) throw WebAuthenticatorError::couldNotStart();
  return pid;
}

void BrowserWebAuthenticator::cancel() {
  {
    std::lock_guard lock(mutex_);
    if (!wait_) return;
    wait_->canceled = true;
  }
  changed_.notify_all();
}

bool BrowserWebAuthenticator::deliverCallback(const std::string& url) {
  const auto parts = synckit::URLComponents::parse(url);
  if (!parts || !parts->scheme) return false;
  {
    std::lock_guard lock(mutex_);
    if (!wait_ || wait_->callback || wait_->canceled || lowercase(*parts->scheme) != wait_->scheme)
      return false;
    wait_->callback = url;
  }
  changed_.notify_all();
  return true;
}

void BrowserWebAuthenticator::setPresenter(Presenter presenter) {
  std::shared_ptr<const Presenter> shown;
  std::string url;
  {
    std::lock_guard lock(mutex_);
    presenter_ = presenter ? std::make_shared<const Presenter>(std::move(presenter)) : nullptr;
    if (presenter_ && wait_ && !wait_->callback && !wait_->canceled) {
      shown = presenter_;
      url = wait_->url;
    }
  }
  if (shown) (*shown)(url);
}

}  // namespace halvark
