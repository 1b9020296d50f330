#include "app/platform/browser_web_authenticator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "synckit/base/cancellation.h"
#include "synckit/testing/eventually.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark {
namespace {

using synckit::testing::eventually;
using synckit::testing::TemporaryDirectory;

constexpr const char* authorizationURL = "https://service.test/authorize?state=abc&x=1";

std::string readAll(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// An opener that writes the URL it was given to `file`.
std::vector<std::string> recordingOpener(const std::filesystem::path& file) {
  return {"/bin/sh", "-c", "printf '%s' \"$0\" > '" + file.string() + "'"};
}

// How authenticate() ended: the callback, or the failure's type and text.
std::string outcomeOf(std::future<std::string>& result) {
  try {
    return result.get();
  } catch (const WebAuthenticationCanceled& error) {
    return std::string("canceled: ") + error.what();
  } catch (const WebAuthenticatorError& error) {
    return std::string("failed: ") + error.what();
  } catch (const synckit::CancellationError&) {
    return "stopped";
  }
}

std::future<std::string> authenticateAsync(BrowserWebAuthenticator& authenticator,
                                           std::stop_token stop = {}) {
  return std::async(std::launch::async, [&authenticator, stop] {
    synckit::CancellationScope scope(stop);
    return authenticator.authenticate(authorizationURL, "halvark");
  });
}

TEST(BrowserWebAuthenticatorTest, OpensTheURLAndReturnsTheCallbackOfItsScheme) {
  TemporaryDirectory directory;
  const auto opened = directory / "opened";
  BrowserWebAuthenticator authenticator(recordingOpener(opened));
  EXPECT_FALSE(authenticator.deliverCallback("halvark://oauth/callback?code=early"));

  auto result = authenticateAsync(authenticator);
  ASSERT_TRUE(eventually([&] { return readAll(opened) == authorizationURL; }));
  EXPECT_FALSE(authenticator.deliverCallback("https://oauth/callback?code=1"));
  EXPECT_FALSE(authenticator.deliverCallback("not a url"));
  ASSERT_TRUE(authenticator.deliverCallback("HALVARK://oauth/callback?code=1&state=abc"));
  EXPECT_EQ(outcomeOf(result), "HALVARK://oauth/callback?code=1&state=abc");
  // The wait is over: a late or repeated callback goes nowhere.
  EXPECT_FALSE(authenticator.deliverCallback("halvark://oauth/callback?code=2"));
}

TEST(BrowserWebAuthenticatorTest, EndsTheWaitWhenTheOpenerFailsOrTheUserOrThreadStops) {
  {
    BrowserWebAuthenticator authenticator({"/nonexistent/opener"});
    auto result = authenticateAsync(authenticator);
    EXPECT_EQ(outcomeOf(result), "failed: Could not open the sign-in window.");
  }
  {
    BrowserWebAuthenticator authenticator({"/bin/sh", "-c", "exit 3"});
    auto result = authenticateAsync(authenticator);
    EXPECT_EQ(outcomeOf(result), "failed: Could not open the sign-in window.");
  }
  {
    TemporaryDirectory directory;
    BrowserWebAuthenticator authenticator(recordingOpener(directory / "opened"));
    auto result = authenticateAsync(authenticator);
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(directory / "opened"); }));
    authenticator.cancel();
    EXPECT_EQ(outcomeOf(result), "canceled: The sign-in was cancelled.");
  }
  {
    // An opener that outlives the wait, as a browser launcher may.
    BrowserWebAuthenticator authenticator({"/bin/sh", "-c", "sleep 0.2"});
    std::stop_source stop;
    auto result = authenticateAsync(authenticator, stop.get_token());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    stop.request_stop();
    EXPECT_EQ(outcomeOf(result), "stopped");
  }
}

TEST(BrowserWebAuthenticatorTest, APresenterIsShownTheURLAndNothingOpens) {
  TemporaryDirectory directory;
  const auto opened = directory / "opened";
  BrowserWebAuthenticator authenticator(recordingOpener(opened));
  std::promise<std::string> presented;
  authenticator.setPresenter([&](const std::string& url) { presented.set_value(url); });
  auto result = authenticateAsync(authenticator);
  EXPECT_EQ(presented.get_future().get(), authorizationURL);

  // A second presenter, for a client that comes later, sees the same wait.
  std::promise<std::string> presentedAgain;
  authenticator.setPresenter([&](const std::string& url) { presentedAgain.set_value(url); });
  EXPECT_EQ(presentedAgain.get_future().get(), authorizationURL);

  // A sign-in that starts over takes the wait over from the first one.
  authenticator.setPresenter([](const std::string&) {});
  auto second = authenticateAsync(authenticator);
  EXPECT_EQ(outcomeOf(result), "canceled: The sign-in was cancelled.");
  ASSERT_TRUE(eventually([&] { return authenticator.deliverCallback("halvark://cb?code=2"); }));
  EXPECT_EQ(outcomeOf(second), "halvark://cb?code=2");
  EXPECT_FALSE(std::filesystem::exists(opened));
}

}  // namespace
}  // namespace halvark
