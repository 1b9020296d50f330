#include "synckit/base/url.h"

#include <gtest/gtest.h>

namespace synckit {
namespace {

TEST(URLComponentsTest, SplitsAndRebuildsWithoutNormalising) {
  auto parts =
      URLComponents::parse("https://user@sync.example.com:8443/prefix/a%20b/?x=1&y=%2F#top");
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->scheme, "https");
  EXPECT_EQ(parts->userInfo, "user");
  EXPECT_EQ(parts->host, "sync.example.com");
  EXPECT_EQ(parts->port, 8443);
  EXPECT_EQ(parts->percentEncodedPath, "/prefix/a%20b/");
  EXPECT_EQ(parts->percentEncodedQuery, "x=1&y=%2F");
  EXPECT_EQ(parts->fragment, "top");
  EXPECT_EQ(parts->string(), "https://user@sync.example.com:8443/prefix/a%20b/?x=1&y=%2F#top");

  auto loopback = URLComponents::parse("http://[::1]:9000");
  ASSERT_TRUE(loopback);
  EXPECT_EQ(loopback->host, "::1");
  EXPECT_EQ(loopback->percentEncodedPath, "");
  EXPECT_EQ(loopback->string(), "http://[::1]:9000");

  auto custom = URLComponents::parse("halvark://oauth/callback?code=abc&state=x");
  ASSERT_TRUE(custom);
  EXPECT_EQ(custom->host, "oauth");
  EXPECT_EQ(custom->percentEncodedPath, "/callback");
}

TEST(URLComponentsTest, RefusesMalformedText) {
  for (const char* text :
       {"https://exa mple.com/", "https://example.com/a b", "https://example.com:99999/",
        "https://example.com:8x/", "https://[::1/", "1http://example.com/",
        "https://example.com/%zz", "https://example.com/%4"}) {
    EXPECT_FALSE(URLComponents::parse(text)) << text;
  }
  auto noHost = URLComponents::parse("https://");
  ASSERT_TRUE(noHost);
  EXPECT_EQ(noHost->host, "");
  auto noScheme = URLComponents::parse("example.com/path");
  ASSERT_TRUE(noScheme);
  EXPECT_FALSE(noScheme->scheme);
  EXPECT_FALSE(noScheme->host);
}

TEST(URLComponentsTest, StringRefusesPartsThatCannotFormAURL) {
  URLComponents parts;
  parts.scheme = "https";
  parts.host = "example.com";
  parts.percentEncodedPath = "relative";
  EXPECT_FALSE(parts.string());
  parts.percentEncodedPath = "/absolute";
  EXPECT_EQ(parts.string(), "https://example.com/absolute");
}

TEST(URLComponentsTest, QueryItemsAreDecodedInOrderAndMayLackAValue) {
  using Item = URLComponents::QueryItem;
  auto parts = URLComponents::parse("halvark://oauth/callback?a=1&flag&b=x%2By+z&a=%E2%9C%93&e=");
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->queryItems(),
            (std::vector<Item>{
                {"a", "1"}, {"flag", std::nullopt}, {"b", "x+y+z"}, {"a", "\u2713"}, {"e", ""}}));
  EXPECT_TRUE(URLComponents::parse("halvark://oauth/callback")->queryItems().empty());
  EXPECT_TRUE(URLComponents::parse("halvark://oauth/callback?")->queryItems().empty());
}

}  // namespace
}  // namespace synckit
