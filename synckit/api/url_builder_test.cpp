#include "synckit/api/url_builder.h"

#include <gtest/gtest.h>

#include "synckit/api/sync_api_error.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

TEST(URLBuilderTest, PercentEncodesEveryByteOutsideTheUnreservedSet) {
  EXPECT_EQ(percentEncode("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(percentEncode("a/b?c#d%e f"), "a%2Fb%3Fc%23d%25e%20f");
  EXPECT_EQ(percentEncode("caf\xC3\xA9"), "caf%C3%A9");
  EXPECT_EQ(percentEncode("+&=:@!*'()"), "%2B%26%3D%3A%40%21%2A%27%28%29");
  EXPECT_EQ(percentEncode(std::string_view("\x00\x7F\xFF", 3)), "%00%7F%FF");
  EXPECT_EQ(encodeQueryItems({{"a b", "1/2"}, {"path", "x?y#z"}}), "a%20b=1%2F2&path=x%3Fy%23z");
}

TEST(URLBuilderTest, JoinsSegmentsBelowTheBasePathWithOneSlash) {
  const std::vector<std::string> segments = {"api", "sync", "brains"};
  for (const char* base :
       {"https://sync.example", "https://sync.example/", "https://sync.example///"}) {
    EXPECT_EQ(makeURL(base, segments), "https://sync.example/api/sync/brains") << base;
  }
  for (const char* base : {"http://127.0.0.1:8080/prefix", "http://127.0.0.1:8080/prefix/",
                           "http://127.0.0.1:8080/prefix//"}) {
    EXPECT_EQ(makeURL(base, segments), "http://127.0.0.1:8080/prefix/api/sync/brains") << base;
  }
  // A segment keeps its reserved characters inside itself.
  EXPECT_EQ(makeURL("https://h/p/", {"brains", "a/b?c#d%e f\xC3\xA9", "file"}),
            "https://h/p/brains/a%2Fb%3Fc%23d%25e%20f%C3%A9/file");
}

TEST(URLBuilderTest, QueryReplacesTheBaseQueryInTheGivenOrder) {
  EXPECT_EQ(makeURL("https://h/?old=1", {"changes"}, {{"cursor", "c/1 2"}, {"deviceId", "d#"}}),
            "https://h/changes?cursor=c%2F1%202&deviceId=d%23");
  EXPECT_EQ(makeURL("https://h/?old=1", {"changes"}), "https://h/changes");
  EXPECT_EQ(makeURL("https://h", {"file"}, {{"path", "\xC3\xA9t\xC3\xA9.md"}, {"at", "v%1"}}),
            "https://h/file?path=%C3%A9t%C3%A9.md&at=v%251");
}

TEST(URLBuilderTest, RefusesABaseThatIsNotAURL) {
  auto error = testing::thrownBy<SyncClientError>([] { makeURL("https://exa mple.com", {"api"}); });
  EXPECT_EQ(error.kind(), SyncClientError::Kind::invalidURL);
  EXPECT_EQ(error.description(), "Could not build a request URL: https://exa mple.com");
}

}  // namespace
}  // namespace synckit
