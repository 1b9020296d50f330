#include "synckit/platform/path_rules.h"

#include <gtest/gtest.h>

#include "synckit/platform/ignore_list.h"

namespace synckit {
namespace {

using namespace std::string_view_literals;

TEST(PathRulesTest, AcceptsPlainRelativePaths) {
  for (std::string_view path : {"a"sv, "a/b.txt"sv, "Notes/2025/März.md"sv, "a/.../b"sv,
                                "a/.hidden"sv, "..a/b.."sv, "a b/c d"sv, ".DS_Store"sv}) {
    EXPECT_TRUE(PathRules::isNormalizedWritePath(path)) << path;
  }
}

TEST(PathRulesTest, RejectsEmptyDotAndEscapingComponents) {
  for (std::string_view path : {""sv, "/"sv, "/a"sv, "a/"sv, "a//b"sv, "a/./b"sv, "a/../b"sv, "."sv,
                                ".."sv, "./a"sv, "a/.."sv, "a\\b"sv, "\\"sv, "a\0b"sv, "a/b\0"sv}) {
    EXPECT_FALSE(PathRules::isNormalizedWritePath(path)) << path;
  }
}

TEST(IgnoreListTest, MatchesOnlyTheLastComponentExactly) {
  for (std::string_view path : {".DS_Store"sv, "folder/.DS_Store"sv, ".localized"sv, "a/b/Icon\r"sv,
                                "Icon\r"sv, "keep/.gitkeep"sv}) {
    EXPECT_TRUE(IgnoreList::isIgnored(path)) << path;
  }
  for (std::string_view path :
       {".ds_store"sv, "Icon"sv, "folder/Icon"sv, "Icon\r\n"sv, "folder/.gitkeep/child"sv,
        ".DS_Store/notes.txt"sv, ".DS_Store "sv, "x.gitkeep"sv, ""sv, "folder/"sv}) {
    EXPECT_FALSE(IgnoreList::isIgnored(path)) << path;
  }
}

}  // namespace
}  // namespace synckit
