#include "app/platform/control_commands.h"

#include <gtest/gtest.h>

namespace halvark {
namespace {

using synckit::BrainSyncStatus;
using synckit::Uuid;

BrainSyncStatus brain(const Uuid& id, std::string name) {
  BrainSyncStatus status;
  status.brainId = id;
  status.name = std::move(name);
  return status;
}

std::string errorOf(const std::vector<BrainSyncStatus>& brains, const std::string& reference) {
  try {
    return ControlCommands::resolveBrain(brains, reference).toString();
  } catch (const synckit::Error& error) {
    return error.what();
  }
}

TEST(ControlCommandsTest, ABrainIsNamedByItsIdInEitherCaseOrByAUniqueName) {
  const Uuid notes = *Uuid::parse("11111111-2222-4333-8444-555555555555");
  const Uuid first = *Uuid::parse("AAAAAAAA-2222-4333-8444-555555555555");
  const Uuid second = *Uuid::parse("BBBBBBBB-2222-4333-8444-555555555555");
  const std::vector<BrainSyncStatus> brains = {
      brain(notes, "Notes"),
      brain(first, "Shared"),
      brain(second, "Shared"),
  };
  EXPECT_EQ(ControlCommands::resolveBrain(brains, "Notes"), notes);
  EXPECT_EQ(ControlCommands::resolveBrain(brains, "bbbbbbbb-2222-4333-8444-555555555555"), second);
  EXPECT_EQ(errorOf(brains, "notes"), "No brain named \u201cnotes\u201d.");
  EXPECT_EQ(errorOf(brains, "CCCCCCCC-2222-4333-8444-555555555555"),
            "No brain named \u201cCCCCCCCC-2222-4333-8444-555555555555\u201d.");
  EXPECT_EQ(errorOf(brains, "Shared"),
            "More than one brain is named \u201cShared\u201d; give its id instead.");
  EXPECT_EQ(errorOf({}, "Notes"), "No brain named \u201cNotes\u201d.");
}

}  // namespace
}  // namespace halvark
