#include "synckit/base/utf8_text.h"

#include <gtest/gtest.h>

namespace synckit {
namespace {

constexpr std::string_view fffd = "\xEF\xBF\xBD";

TEST(UTF8TextTest, ReplacesEachMaximalIllFormedSubsequence) {
  EXPECT_EQ(decodeUTF8Lossy("plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
            "plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(decodeUTF8Lossy("\xFF"), fffd);
  // A truncated sequence is one replacement, and the byte that cut it short
  // is read again on its own.
  EXPECT_EQ(decodeUTF8Lossy("\xE2\x82"
                            "A"),
            std::string(fffd) + "A");
  EXPECT_EQ(decodeUTF8Lossy("\xF0\x9F\x98"), fffd);
  EXPECT_EQ(decodeUTF8Lossy("\xE2\x82\xC3\xA9"), std::string(fffd) + "\xC3\xA9");
  // Overlong forms, surrogates and code points past U+10FFFF get one
  // replacement per byte.
  std::string two = std::string(fffd) + std::string(fffd);
  std::string three = two + std::string(fffd);
  EXPECT_EQ(decodeUTF8Lossy("\xC0\xAF"), two);
  EXPECT_EQ(decodeUTF8Lossy("\xE0\x80\xAF"), three);
  EXPECT_EQ(decodeUTF8Lossy("\xED\xA0\x80"), three);
  EXPECT_EQ(decodeUTF8Lossy("\xF4\x90\x80\x80"), two + two);
  EXPECT_EQ(decodeUTF8Lossy("\x80"
                            "a"),
            std::string(fffd) + "a");
  EXPECT_EQ(decodeUTF8Lossy(std::string_view("a\0b", 3)), std::string("a\0b", 3));
}

TEST(UTF8TextTest, CountsUTF16UnitsOfWellFormedTextOnly) {
  EXPECT_EQ(utf16Length(""), 0u);
  // One unit each for ASCII, two- and three-byte forms; a pair past U+FFFF.
  EXPECT_EQ(utf16Length("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), 5u);
  EXPECT_EQ(utf16Length(std::string_view("a\0b", 3)), 3u);
  EXPECT_EQ(utf16Length("ok\xF0\x9F\x98"), std::nullopt);
  EXPECT_EQ(utf16Length("\xED\xA0\x80"), std::nullopt);
  EXPECT_EQ(utf16Length("\xC0\xAF"), std::nullopt);
  EXPECT_EQ(utf16Length("\xF4\x90\x80\x80"), std::nullopt);
  EXPECT_EQ(utf16Length("a\x80"), std::nullopt);
}

}  // namespace
}  // namespace synckit
