#include "synckit/engine/upload_planner.h"

#include <gtest/gtest.h>

#include "synckit/engine/content_classifier.h"

namespace synckit {
namespace {

const Uuid notes = *Uuid::parse("11111111-1111-4111-8111-111111111111");
const Uuid work = *Uuid::parse("22222222-2222-4222-8222-222222222222");
const auto root = SyncItemIdentifier::root();

NodeRecord nodeAt(std::string path, bool localOnly = false) {
  NodeRecord record;
  record.brainId = notes;
  record.nodeId = "n-" + path;
  record.path = std::move(path);
  record.localOnly = localOnly;
  return record;
}

TEST(UploadPlanErrorTest, DescriptionsAreTheUserFacingTexts) {
  EXPECT_EQ(UploadPlanError::invalidPath("a/b").description(),
            "\"a/b\" is not a valid name or path for Halvark.");
  EXPECT_EQ(UploadPlanError::junkDestination(".DS_Store").description(),
            "\".DS_Store\" is a name Halvark does not sync.");
  EXPECT_STREQ(UploadPlanError::tooLarge(104857601).what(),
               "This file is too large to upload (104857601 bytes). The limit is 104857600 bytes.");
  EXPECT_EQ(UploadPlanError::noInboxBrain().description(),
            "There is no brain to put this item in. Choose an inbox brain or create the item "
            "inside a brain.");
  EXPECT_EQ(UploadPlanError::moveIntoSelf().description(), "A folder can't be moved into itself.");
  EXPECT_EQ(UploadPlanner::crossBrainMessage,
            "Moving items between brains isn't supported. Copy the item instead.");
}

TEST(UploadPlannerTest, CreateResolvesTheParentBeforeTestingTheName) {
  using P = CreatePlan;
  const auto folder = SyncItemIdentifier::node(notes, "dir:p");
  auto refused = [](std::string path) {
    return P(P::Rejected{UploadPlanError::invalidPath(path)});
  };
  const struct {
    SyncItemIdentifier parent;
    std::optional<std::string> parentPath;
    const char* name;
    bool isDirectory;
    std::optional<Uuid> inbox;
    CreatePlan expected;
  } rows[] = {
      {root, "ignored", "a.md", false, std::nullopt, P::Rejected{UploadPlanError::noInboxBrain()}},
      {root, "ignored", "a.md", false, work, P::Upload{work, "a.md"}},
      {SyncItemIdentifier::brain(notes), "ignored", "a.md", false, work, P::Upload{notes, "a.md"}},
      {folder, "p", "a.md", false, work, P::Upload{notes, "p/a.md"}},
      // An unknown folder path is refused naming only the file, ignored or not.
      {folder, std::nullopt, ".DS_Store", false, work, refused(".DS_Store")},
      // A slash in the name is refused naming the whole joined path.
      {folder, "p", "a/b", false, work, refused("p/a/b")},
      {folder, "p", "..", true, work, refused("p/..")},
      // Ignored names stay local even where the path rules would refuse the path.
      {folder, "p//q", ".DS_Store", false, work, P::LocalOnly{notes, "p//q/.DS_Store"}},
      {folder, "p", ".gitkeep", true, work, P::LocalOnly{notes, "p/.gitkeep"}},
      {folder, "p", "q", true, work, P::LocalDirectoryOnly{notes, "p/q"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(
        UploadPlanner::planCreate(row.parent, row.parentPath, row.name, row.isDirectory, row.inbox),
        row.expected)
        << row.name;
  }
}

TEST(UploadPlannerTest, MoveRefusalsComeInTheirOrder) {
  using namespace UploadPlanner;
  using M = MovePlan;
  const NodeRecord a = nodeAt("a");
  const NodeRecord plan = nodeAt("docs/plan.md");
  auto rejected = [](UploadPlanError error) { return M(M::Rejected{std::move(error)}); };

  EXPECT_EQ(planRename(plan, "plan.md"), M(M::NoChange{}));
  EXPECT_EQ(planRename(plan, "todo.md"), M(M::Move{notes, "docs/plan.md", "docs/todo.md"}));
  // Another brain is reported before the name is looked at.
  EXPECT_EQ(planMove(plan, "x/..", SyncItemIdentifier::brain(work), std::nullopt, std::nullopt),
            M(M::CrossBrainUnsupported{}));
  EXPECT_EQ(planReparent(plan, root, std::nullopt, work), M(M::CrossBrainUnsupported{}));
  EXPECT_EQ(planReparent(plan, root, std::nullopt, notes),
            M(M::Move{notes, "docs/plan.md", "plan.md"}));
  EXPECT_EQ(planReparent(plan, root, std::nullopt, std::nullopt),
            rejected(UploadPlanError::noInboxBrain()));
  EXPECT_EQ(
      planReparent(plan, SyncItemIdentifier::node(notes, "dir:x"), std::nullopt, std::nullopt),
      rejected(UploadPlanError::invalidPath("plan.md")));
  EXPECT_EQ(planRename(plan, "a/b"), rejected(UploadPlanError::invalidPath("docs/a/b")));

  EXPECT_EQ(planReparent(a, SyncItemIdentifier::node(notes, "dir:a/b"), "a/b", std::nullopt),
            rejected(UploadPlanError::moveIntoSelf()));
  EXPECT_EQ(planReparent(a, SyncItemIdentifier::node(notes, "dir:ab"), "ab", std::nullopt),
            M(M::Move{notes, "a", "ab/a"}));

  // Only a local-only item may take an ignored name.
  EXPECT_EQ(planRename(plan, ".DS_Store"), rejected(UploadPlanError::junkDestination(".DS_Store")));
  EXPECT_EQ(planRename(nodeAt("docs/plan.md", true), ".DS_Store"),
            M(M::LocalOnly{notes, "docs/plan.md", "docs/.DS_Store"}));
}

TEST(UploadPlannerTest, ContentPlanTakesTheLimitInclusive) {
  using UploadPlanner::planContentUpload;
  using P = ContentUploadPlan;
  EXPECT_EQ(planContentUpload(toBytes("hello")), P(P::Text{"hello"}));
  const Bytes binary{0x00, 0xFF};
  EXPECT_EQ(planContentUpload(binary), P(P::Blob{binary, ContentClassifier::blobHash(binary), 2}));

  Bytes limit(UploadPlanner::maxUploadBytes, 0);
  EXPECT_EQ(planContentUpload(limit).as<P::Blob>()->size, 104857600);
  limit.push_back(0);
  EXPECT_EQ(planContentUpload(std::move(limit)), P(P::TooLarge{104857601}));
}

TEST(UploadPlannerTest, DefaultTitleAndInboxBrain) {
  using namespace UploadPlanner;
  EXPECT_EQ(defaultTitle("notes/plan.md"), "plan");
  EXPECT_EQ(defaultTitle(".profile"), ".profile");
  EXPECT_EQ(defaultTitle("x/a.b.c"), "a.b");
  EXPECT_EQ(defaultTitle("v1.2/README"), "README");

  // A stored inbox brain is preferred, then the "inbox" slug, then the first
  // by lower-cased name, slug and id.
  auto brain = [](char digit, std::string slug, std::string name) {
    const std::string d(1, digit);
    return BrainRecord{*Uuid::parse(std::string(8, digit) + "-" + d + d + d + d + "-4" + d + d + d +
                                    "-8" + d + d + d + "-" + std::string(12, digit)),
                       std::move(slug), std::move(name), std::nullopt};
  };
  const auto workBrain = brain('2', "work", "Work"), inbox = brain('3', "INBOX", "Inbox");
  const auto alpha = brain('4', "z", "alpha"), inbox2 = brain('5', "inbox", "Inbox"),
             inbox3 = brain('6', "inbox", "Inbox");
  EXPECT_EQ(resolveInboxBrain({workBrain, inbox}, std::nullopt), inbox.brainId);
  EXPECT_EQ(resolveInboxBrain({workBrain, inbox}, alpha.brainId), inbox.brainId);
  EXPECT_EQ(resolveInboxBrain({workBrain, inbox}, workBrain.brainId), workBrain.brainId);
  EXPECT_EQ(resolveInboxBrain({workBrain, alpha}, std::nullopt), alpha.brainId);
  EXPECT_EQ(resolveInboxBrain({inbox3, inbox2, inbox}, std::nullopt), inbox.brainId);
  EXPECT_EQ(resolveInboxBrain({inbox3, inbox2}, std::nullopt), inbox2.brainId);
  EXPECT_EQ(resolveInboxBrain({}, workBrain.brainId), std::nullopt);
}

}  // namespace
}  // namespace synckit
