#include "app/platform/updater.h"

#include <gtest/gtest.h>

#include "synckit/base/error.h"
#include "synckit/testing/fake_http_transport.h"

namespace halvark {
namespace {

using synckit::testing::FakeHTTPTransport;
using Outcome = Updater::Outcome;

constexpr const char* feedURL = "https://updates.example.test/halvark.json";

Outcome checkAgainst(FakeHTTPTransport& transport, const std::string& current = "0.9.2") {
  return Updater(current, transport, [] { return std::optional<std::string>(feedURL); }).check();
}

TEST(Updater, ComparesVersionsNumerically) {
  FakeHTTPTransport transport;
  transport.enqueue(FakeHTTPTransport::json(
      200, R"({"version": "0.10.0", "url": "https://example.test/0.10.0"})"));
  EXPECT_EQ(checkAgainst(transport),
            (Outcome{Outcome::Available{"0.10.0", "https://example.test/0.10.0"}}));
  ASSERT_EQ(transport.requestCount(), 1u);
  EXPECT_EQ(transport.requests()[0].url, feedURL);

  transport.enqueue(FakeHTTPTransport::json(200, R"({"version": "0.9", "url": "https://e.test"})"));
  EXPECT_EQ(checkAgainst(transport, "0.9.0").kind(), Outcome::Kind::upToDate);
  transport.enqueue(
      FakeHTTPTransport::json(200, R"({"version": "0.9.1", "url": "https://e.test"})"));
  EXPECT_EQ(checkAgainst(transport).kind(), Outcome::Kind::upToDate);

  EXPECT_EQ(Updater::compareVersions("1.2", "1.2.0"), 0);
  EXPECT_EQ(Updater::compareVersions("1.2.1", "1.10"), -1);
  EXPECT_EQ(Updater::compareVersions("1..2", "1.2"), std::nullopt);
  EXPECT_EQ(Updater::compareVersions("1.2-beta", "1.2"), std::nullopt);
}

TEST(Updater, ReportsEveryFailureAsATextAndFetchesNothingWithoutAFeed) {
  FakeHTTPTransport transport;
  EXPECT_EQ(Updater("0.1.0", transport, [] { return std::optional<std::string>(); }).check(),
            (Outcome{Outcome::Failed{"Updates are not configured."}}));
  EXPECT_EQ(Updater("0.1.0", transport, [] { return std::optional<std::string>("file:///x"); })
                .check()
                .kind(),
            Outcome::Kind::failed);
  EXPECT_EQ(transport.requestCount(), 0u);

  transport.enqueue(FakeHTTPTransport::json(404, R"({"error": "no"})"));
  EXPECT_EQ(checkAgainst(transport),
            (Outcome{Outcome::Failed{"Could not check for updates: the server answered 404."}}));

  const Outcome unreadable{
      Outcome::Failed{"Could not check for updates: the release feed could not be read."}};
  for (const char* body : {"<html>", R"({"version": 2, "url": "https://e.test"})",
                           R"({"version": "2.0"})", R"({"version": "2.0", "url": "file:///x"})",
                           R"({"version": "v2", "url": "https://e.test"})"}) {
    transport.enqueue(FakeHTTPTransport::json(200, body));
    EXPECT_EQ(checkAgainst(transport), unreadable) << body;
  }

  transport.setHandler([](const synckit::HTTPRequest&) -> synckit::HTTPResponse {
    throw synckit::TransportError(synckit::TransportError::Kind::cannotConnect, "");
  });
  EXPECT_EQ(
      checkAgainst(transport),
      (Outcome{Outcome::Failed{"Could not check for updates: Could not connect to the server."}}));
}

}  // namespace
}  // namespace halvark
