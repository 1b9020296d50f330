#include "server/brain_path.h"

#include <gtest/gtest.h>

#include "server/form_codec.h"

namespace devserver {
namespace {

TEST(BrainPath, Rules) {
  for (const char* good : {"a", "a/b", "notes/2025/plan.md", ".profile", "a/.b", "..a", "a b"}) {
    EXPECT_TRUE(isValidBrainPath(good)) << good;
  }
  for (const std::string& bad :
       std::vector<std::string>{"", "/", "/a", "a/", "a//b", ".", "..", "a/./b", "a/..", "a\\b",
                                std::string("a\0", 2)}) {
    EXPECT_FALSE(isValidBrainPath(bad)) << bad;
  }
  EXPECT_EQ(ancestorPaths("a/b/c"), (std::vector<std::string>{"a", "a/b"}));
  EXPECT_TRUE(ancestorPaths("a").empty());
  EXPECT_TRUE(isWithin("a/b", "a"));
  EXPECT_TRUE(isWithin("a", "a"));
  EXPECT_FALSE(isWithin("ab", "a"));
  EXPECT_FALSE(isWithin("a", "a/b"));
  EXPECT_EQ(defaultTitle("notes/plan.md"), "plan");
  EXPECT_EQ(defaultTitle(".profile"), ".profile");
  EXPECT_EQ(defaultTitle("x/a.b.c"), "a.b");
  EXPECT_EQ(lastComponent("a/b/c.md"), "c.md");
}

TEST(FormCodec, DecodesLenientlyAndEncodesStrictly) {
  auto fields = decodeForm("a=1+2&b=%2F%zz&c&a=ignored&d=%C3%A9");
  EXPECT_EQ(fields["a"], "1 2");
  EXPECT_EQ(fields["b"], "/%zz");
  EXPECT_EQ(fields["c"], "");
  EXPECT_EQ(fields["d"], "\xc3\xa9");
  EXPECT_EQ(percentEncode("a b/é~"), "a%20b%2F%C3%A9~");
  EXPECT_EQ(appendQuery("halvark://oauth/callback", {{"code", "x y"}, {"state", "s"}}),
            "halvark://oauth/callback?code=x%20y&state=s");
  EXPECT_EQ(appendQuery("https://h/cb?keep=1", {{"code", "c"}}), "https://h/cb?keep=1&code=c");
}

}  // namespace
}  // namespace devserver
