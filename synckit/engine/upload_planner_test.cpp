#include "synckit/engine/upload_planner.h"

#include <gtest/gtest.h>

#include "synckit/engine/content_classifier.h"

namespace synckit {
namespace {

const Uuid notes = *Uuid::parse("11111111-1111-4111-8111-111111111111");
const Uuid work = *Uuid::parse("22222222-2222-4222-8222-222222222222");

CreatePlan::Rejected refused(UploadPlanError error) { return {std::move(error)}; }

NodeRecord nodeAt(std::string path, bool localOnly = false) {
  NodeRecord record;
  record.brainId = notes;
  record.nodeId = "n-" + path;
  record.path = std::move(path);
  record.localOnly = localOnly;
  return record;
}

BrainRecord brain(const char* id, std::string slug, std::string name) {
  return BrainRecord{*Uuid::parse(id), std::move(slug), std::move(name), std::nullopt};
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
  EXPECT_NE(UploadPlanError::invalidPath("a"), UploadPlanError::junkDestination("a"));
  EXPECT_NE(UploadPlanError::tooLarge(1), UploadPlanError::tooLarge(2));
}

TEST(UploadPlannerTest, CreateResolvesTheParentBeforeTestingTheName) {
  using UploadPlanner::planCreate;
  const auto root = SyncItemIdentifier::root();
  const auto folder = SyncItemIdentifier::node(notes, "dir:p");

  EXPECT_EQ(planCreate(root, "ignored", "a.md", false, std::nullopt),
            CreatePlan(refused(UploadPlanError::noInboxBrain())));
  EXPECT_EQ(planCreate(root, "ignored", "a.md", false, work),
            CreatePlan(CreatePlan::Upload{work, "a.md"}));
  EXPECT_EQ(planCreate(SyncItemIdentifier::brain(notes), "ignored", "a.md", false, work),
            CreatePlan(CreatePlan::Upload{notes, "a.md"}));
  EXPECT_EQ(planCreate(folder, "p", "a.md", false, work),
            CreatePlan(CreatePlan::Upload{notes, "p/a.md"}));
  // An unknown folder path is refused naming only the file, ignored or not.
  EXPECT_EQ(planCreate(folder, std::nullopt, ".DS_Store", false, work),
            CreatePlan(refused(UploadPlanError::invalidPath(".DS_Store"))));
  // A slash in the name is refused naming the whole joined path.
  EXPECT_EQ(planCreate(folder, "p", "a/b", false, work),
            CreatePlan(refused(UploadPlanError::invalidPath("p/a/b"))));
  EXPECT_EQ(planCreate(folder, "p", "..", true, work),
            CreatePlan(refused(UploadPlanError::invalidPath("p/.."))));
  // Ignored names stay local even where the path rules would refuse the path.
  EXPECT_EQ(planCreate(folder, "p//q", ".DS_Store", false, work),
            CreatePlan(CreatePlan::LocalOnly{notes, "p//q/.DS_Store"}));
  EXPECT_EQ(planCreate(folder, "p", ".gitkeep", true, work),
            CreatePlan(CreatePlan::LocalOnly{notes, "p/.gitkeep"}));
  EXPECT_EQ(planCreate(folder, "p", "q", true, work),
            CreatePlan(CreatePlan::LocalDirectoryOnly{notes, "p/q"}));
}

TEST(UploadPlannerTest, MoveRefusalsComeInTheirOrder) {
  using UploadPlanner::planMove;
  using UploadPlanner::planRename;
  using UploadPlanner::planReparent;
  const NodeRecord a = nodeAt("a");
  const NodeRecord plan = nodeAt("docs/plan.md");

  EXPECT_EQ(planRename(plan, "plan.md"), MovePlan(MovePlan::NoChange{}));
  EXPECT_EQ(planRename(plan, "todo.md"),
            MovePlan(MovePlan::Move{notes, "docs/plan.md", "docs/todo.md"}));
  // Another brain is reported before the name is looked at.
  EXPECT_EQ(planMove(plan, "x/..", SyncItemIdentifier::brain(work), std::nullopt, std::nullopt),
            MovePlan(MovePlan::CrossBrainUnsupported{}));
  EXPECT_EQ(planReparent(plan, SyncItemIdentifier::root(), std::nullopt, work),
            MovePlan(MovePlan::CrossBrainUnsupported{}));
  EXPECT_EQ(planReparent(plan, SyncItemIdentifier::root(), std::nullopt, notes),
            MovePlan(MovePlan::Move{notes, "docs/plan.md", "plan.md"}));
  EXPECT_EQ(planReparent(plan, SyncItemIdentifier::root(), std::nullopt, std::nullopt),
            MovePlan(MovePlan::Rejected{UploadPlanError::noInboxBrain()}));
  EXPECT_EQ(
      planReparent(plan, SyncItemIdentifier::node(notes, "dir:x"), std::nullopt, std::nullopt),
      MovePlan(MovePlan::Rejected{UploadPlanError::invalidPath("plan.md")}));
  EXPECT_EQ(planRename(plan, "a/b"),
            MovePlan(MovePlan::Rejected{UploadPlanError::invalidPath("docs/a/b")}));

  EXPECT_EQ(planReparent(a, SyncItemIdentifier::node(notes, "dir:a/b"), "a/b", std::nullopt),
            MovePlan(MovePlan::Rejected{UploadPlanError::moveIntoSelf()}));
  EXPECT_EQ(planRename(a, "ab"), MovePlan(MovePlan::Move{notes, "a", "ab"}));
  EXPECT_EQ(planReparent(a, SyncItemIdentifier::node(notes, "dir:ab"), "ab", std::nullopt),
            MovePlan(MovePlan::Move{notes, "a", "ab/a"}));

  // Only a local-only item may take an ignored name.
  EXPECT_EQ(planRename(plan, ".DS_Store"),
            MovePlan(MovePlan::Rejected{UploadPlanError::junkDestination(".DS_Store")}));
  EXPECT_EQ(planRename(nodeAt("docs/plan.md", true), ".DS_Store"),
            MovePlan(MovePlan::LocalOnly{notes, "docs/plan.md", "docs/.DS_Store"}));
}

TEST(UploadPlannerTest, ContentPlanTakesTheLimitInclusive) {
  using UploadPlanner::planContentUpload;
  EXPECT_EQ(UploadPlanner::maxUploadBytes, 104857600);
  EXPECT_EQ(planContentUpload(toBytes("hello")),
            ContentUploadPlan(ContentUploadPlan::Text{"hello"}));
  const Bytes binary{0x00, 0xFF};
  EXPECT_EQ(planContentUpload(binary), ContentUploadPlan(ContentUploadPlan::Blob{
                                           binary, ContentClassifier::blobHash(binary), 2}));

  Bytes limit(104857600, 0);
  ContentUploadPlan atLimit = planContentUpload(limit);
  ASSERT_EQ(atLimit.kind(), ContentUploadPlan::Kind::blob);
  EXPECT_EQ(atLimit.as<ContentUploadPlan::Blob>()->size, 104857600);
  EXPECT_EQ(atLimit.as<ContentUploadPlan::Blob>()->data.size(), 104857600u);
  atLimit = ContentUploadPlan::TooLarge{};  // lets the 100 MiB go
  limit.push_back(0);
  EXPECT_EQ(planContentUpload(std::move(limit)),
            ContentUploadPlan(ContentUploadPlan::TooLarge{104857601}));
}

TEST(UploadPlannerTest, DefaultTitleDropsOnlyARealExtension) {
  using UploadPlanner::defaultTitle;
  EXPECT_EQ(defaultTitle("notes/plan.md"), "plan");
  EXPECT_EQ(defaultTitle(".profile"), ".profile");
  EXPECT_EQ(defaultTitle("x/a.b.c"), "a.b");
  EXPECT_EQ(defaultTitle("v1.2/README"), "README");
}

TEST(UploadPlannerTest, InboxBrainIsPreferredThenInboxSlugThenFirstByName) {
  using UploadPlanner::resolveInboxBrain;
  const auto workBrain = brain("22222222-2222-4222-8222-222222222222", "work", "Work");
  const auto inbox = brain("33333333-3333-4333-8333-333333333333", "INBOX", "Inbox");
  const auto alpha = brain("44444444-4444-4444-8444-444444444444", "z", "alpha");
  const std::vector<BrainRecord> brains{workBrain, inbox};

  EXPECT_EQ(resolveInboxBrain(brains, std::nullopt), inbox.brainId);
  EXPECT_EQ(resolveInboxBrain(brains, alpha.brainId), inbox.brainId);
  EXPECT_EQ(resolveInboxBrain(brains, workBrain.brainId), workBrain.brainId);
  // Without an inbox slug, the first by lower-cased name ("alpha" < "work").
  EXPECT_EQ(resolveInboxBrain({workBrain, alpha}, std::nullopt), alpha.brainId);
  // Equal names fall back to the slug, then the id.
  const auto inbox2 = brain("55555555-5555-4555-8555-555555555555", "inbox", "Inbox");
  const auto inbox3 = brain("66666666-6666-4666-8666-666666666666", "inbox", "Inbox");
  EXPECT_EQ(resolveInboxBrain({inbox3, inbox2, inbox}, std::nullopt), inbox.brainId);
  EXPECT_EQ(resolveInboxBrain({inbox3, inbox2}, std::nullopt), inbox2.brainId);
  EXPECT_EQ(resolveInboxBrain({}, workBrain.brainId), std::nullopt);
}

}  // namespace
}  // namespace synckit
