#include "synckit/platform/shared_defaults.h"

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "synckit/base/error.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::TemporaryDirectory;

std::string contentOf(const std::filesystem::path& file) {
  std::ifstream in(file);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string nested(int depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); }

TEST(SharedDefaultsTest, KeepsNestedValuesWithoutGrowingTheFile) {
  TemporaryDirectory temp;
  SharedDefaults defaults(temp / "defaults.json");
  std::string original = R"({"keep": )" + nested(60) + R"(, "other": {"a": [1, "x"]}})";
  std::ofstream(defaults.file()) << original;

  defaults.set("HVBaseURLOverride", "https://sync.example.test");
  std::string written = contentOf(defaults.file());
  EXPECT_LT(written.size(), original.size() + 80) << written;
  auto expected = nlohmann::json::parse(original);
  expected["HVBaseURLOverride"] = "https://sync.example.test";
  EXPECT_EQ(nlohmann::json::parse(written), expected);
  EXPECT_EQ(defaults.string("HVBaseURLOverride"), "https://sync.example.test");

  defaults.set("HVBaseURLOverride", std::nullopt);
  defaults.set("other", std::nullopt);
  defaults.set("keep", std::nullopt);
  EXPECT_EQ(contentOf(defaults.file()), "{}\n");
}

TEST(SharedDefaultsTest, RefusesAFileNestedTooDeeplyAndLeavesIt) {
  TemporaryDirectory temp;
  SharedDefaults defaults(temp / "defaults.json");
  std::string original =
      R"({"HVBaseURLOverride": "https://a.test", "deep": )" + nested(200000) + "}";
  std::ofstream(defaults.file()) << original;

  EXPECT_EQ(defaults.string("HVBaseURLOverride"), std::nullopt);
  auto error = testing::thrownBy<DecodingError>([&] { defaults.set("HVBaseURLOverride", "x"); });
  EXPECT_EQ(error.kind(), DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(error.description(), "The shared defaults file \u201c" + defaults.file().string() +
                                     "\u201d is nested too deeply.");
  EXPECT_EQ(contentOf(defaults.file()), original);
}

}  // namespace
}  // namespace synckit
