#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/core/web_authenticator.h"

namespace halvark {

// The web sign-in on a Linux desktop: the authorization URL opens in the
// user's browser (`xdg-open`), and the service's redirect to
// `halvark://oauth/callback?…` comes back through the URL-scheme handler,
// which runs `halvark open-url URL`; the control socket hands that URL to
// deliverCallback(). A headless sign-in (`halvark sign-in --no-browser`)
// installs a presenter instead, which is shown the URL and opens nothing.
//
// Thread-safe: authenticate() blocks its worker thread, every other member
// may be called from any thread meanwhile.
class BrowserWebAuthenticator final : public WebAuthenticator {
 public:
  // Receives the authorization URL in place of a browser. Called on the
  // thread of authenticate(), or of setPresenter() for a wait in progress,
  // without any lock of the authenticator held.
  using Presenter = std::function<void(const std::string& url)>;

  // The program that opens a URL, as argv without the URL:
  // $HALVARK_BROWSER when set (a program path or name, for tests and
  // machines without a desktop), else "xdg-open".
  static std::vector<std::string> defaultOpener();

  explicit BrowserWebAuthenticator(std::vector<std::string> opener = defaultOpener());
  ~BrowserWebAuthenticator() override;
  BrowserWebAuthenticator(const BrowserWebAuthenticator&) = delete;
  BrowserWebAuthenticator& operator=(const BrowserWebAuthenticator&) = delete;

  // Opens `url` (or presents it) and waits for deliverCallback() with a URL
  // of `callbackScheme`. The opener is started with the URL as its last
  // argument and is not waited for, except that an opener that cannot be
  // started or exits unsuccessfully while the wait is on fails it with
  // WebAuthenticatorError::couldNotStart(). Throws WebAuthenticationCanceled
  // after cancel() and CancellationError when the calling thread's stop is
  // requested. A second call while one waits takes over: the first one ends
  // as cancelled.
  std::string authenticate(const std::string& url, const std::string& callbackScheme) override;
  void cancel() override;

  // Hands a callback URL to the waiting sign-in. False when none waits or
  // the URL's scheme is not the one it waits for.
  bool deliverCallback(const std::string& url);

  // While a presenter is set, sign-ins show it their URL instead of opening
  // the browser; a sign-in that is waiting already shows it its URL at once.
  // An empty function goes back to the browser.
  void setPresenter(Presenter presenter);

 private:
  struct Wait;

  // Starts the opener for `url`; throws WebAuthenticatorError.
  pid_t startOpener(const std::string& url);

  const std::vector<std::string> opener_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::shared_ptr<Wait> wait_;  // the sign-in that waits now
  std::shared_ptr<const Presenter> presenter_;
  // Openers not reaped yet (a browser launcher may stay for as long as the
  // browser does).
  std::vector<pid_t> openers_;
};

}  // namespace halvark
