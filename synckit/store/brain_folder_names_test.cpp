#include "synckit/store/brain_folder_names.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace synckit {
namespace {

using synckit::BrainRecord;
using synckit::Uuid;

BrainRecord brain(const char* id, std::string slug, std::string name) {
  return BrainRecord{*Uuid::parse(id), std::move(slug), std::move(name), std::nullopt};
}

const char* const kA = "AAAAAAAA-0000-4000-8000-000000000001";
const char* const kB = "BBBBBBBB-0000-4000-8000-000000000002";
const char* const kC = "CCCCCCCC-0000-4000-8000-000000000003";
const char* const kD = "AAAAAAAA-0000-4000-8000-000000000004";  // same first 8 digits as kA

std::string nameOf(const std::map<Uuid, std::string>& names, const char* id) {
  return names.at(*Uuid::parse(id));
}

TEST(MirrorLayoutTest, UnusableNamesFallBackToTheSlugThenTheId) {
  const std::string longName(256, 'x');
  auto names = brainFolderNames({
      brain(kA, "notes", "Notes \u00e9t\u00e9"),
      brain(kB, "work", "a/b"),
      brain(kC, "", ".."),
      brain(kD, "../x", ".halvark-staging"),
      brain("DDDDDDDD-0000-4000-8000-000000000005", "long", longName),
      brain("EEEEEEEE-0000-4000-8000-000000000006", "nul", std::string("a\0b", 3)),
  });
  EXPECT_EQ(nameOf(names, kA), "Notes \u00e9t\u00e9");
  EXPECT_EQ(nameOf(names, kB), "work");
  EXPECT_EQ(nameOf(names, kC), "CCCCCCCC");
  EXPECT_EQ(nameOf(names, kD), "AAAAAAAA");
  EXPECT_EQ(nameOf(names, "DDDDDDDD-0000-4000-8000-000000000005"), "long");
  EXPECT_EQ(nameOf(names, "EEEEEEEE-0000-4000-8000-000000000006"), "nul");
}

TEST(MirrorLayoutTest, SharedNamesGetSuffixesThatStayTheSameWhateverTheOrder) {
  std::string longName;
  for (int i = 0; i < 127; ++i) longName += "\u00e9";
  longName += "x";
  std::vector<BrainRecord> brains = {
      brain(kA, "research", "Notes"),
      brain(kB, "personal", "Notes"),
      brain(kC, "research", "Notes"),        // same slug as kA: the id tells them apart
      brain(kD, "x/y", "Notes (research)"),  // taken by kA's suffix as well
      brain("DDDDDDDD-0000-4000-8000-000000000005", "personal", "Diary"),
      brain("EEEEEEEE-0000-4000-8000-000000000006", "diary2", "Diary"),
      // 255 bytes each: a shared name that is cut, between characters,
      // to make room for a suffix.
      brain("FFFFFFFF-0000-4000-8000-000000000007", "s", longName),
      brain("FFFFFFFF-0000-4000-8000-000000000008", "s", longName),
  };
  auto names = brainFolderNames(brains);

  EXPECT_EQ(nameOf(names, kB), "Notes (personal)");
  EXPECT_EQ(nameOf(names, kA), "Notes (AAAAAAAA)");
  EXPECT_EQ(nameOf(names, kC), "Notes (CCCCCCCC)");
  EXPECT_EQ(nameOf(names, kD), "Notes (research) (AAAAAAAA)");
  EXPECT_EQ(nameOf(names, "DDDDDDDD-0000-4000-8000-000000000005"), "Diary (personal)");
  EXPECT_EQ(nameOf(names, "EEEEEEEE-0000-4000-8000-000000000006"), "Diary (diary2)");
  std::string cut;
  for (int i = 0; i < 108; ++i) cut += "\u00e9";
  EXPECT_EQ(nameOf(names, "FFFFFFFF-0000-4000-8000-000000000007"),
            cut + " (FFFFFFFF-0000-4000-8000-000000000007)");
  std::set<std::string> distinct;
  for (const auto& [id, name] : names) {
    EXPECT_LE(name.size(), 255u) << name;
    distinct.insert(name);
  }
  EXPECT_EQ(distinct.size(), brains.size());

  std::sort(brains.begin(), brains.end(),
            [](const BrainRecord& a, const BrainRecord& b) { return a.brainId < b.brainId; });
  do {
    EXPECT_EQ(brainFolderNames(brains), names);
  } while (std::next_permutation(
      brains.begin(), brains.begin() + 4,
      [](const BrainRecord& a, const BrainRecord& b) { return a.brainId < b.brainId; }));
  std::reverse(brains.begin(), brains.end());
  EXPECT_EQ(brainFolderNames(brains), names);
}

}  // namespace
}  // namespace synckit
