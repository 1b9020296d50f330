#include "synckit/engine/upload_planner.h"

#include <algorithm>
#include <cctype>
#include <tuple>

#include "synckit/base/utf8_text.h"
#include "synckit/engine/content_classifier.h"
#include "synckit/platform/ignore_list.h"
#include "synckit/platform/path_rules.h"

namespace synckit::UploadPlanner {
namespace {

std::string join(std::string_view parentPath, std::string_view name) {
  std::string path(parentPath);
  if (!path.empty()) path += '/';
  path.append(name);
  return path;
}

CreatePlan rejectCreate(UploadPlanError error) { return CreatePlan::Rejected{std::move(error)}; }

MovePlan rejectMove(UploadPlanError error) { return MovePlan::Rejected{std::move(error)}; }

}  // namespace

CreatePlan planCreate(const SyncItemIdentifier& parent,
                      const std::optional<std::string>& parentPath, std::string_view filename,
                      bool isDirectory, const std::optional<Uuid>& inboxBrainId) {
  Uuid brainId;
  std::string_view folder;
  if (const auto* brain = std::get_if<SyncItemIdentifier::Brain>(&parent.value)) {
    brainId = brain->brainId;
  } else if (const auto* node = std::get_if<SyncItemIdentifier::Node>(&parent.value)) {
    if (!parentPath) return rejectCreate(UploadPlanError::invalidPath(std::string(filename)));
    brainId = node->brainId;
    folder = *parentPath;
  } else {
    if (!inboxBrainId) return rejectCreate(UploadPlanError::noInboxBrain());
    brainId = *inboxBrainId;
  }

  std::string path = join(folder, filename);
  if (filename.find('/') != std::string_view::npos) {
    return rejectCreate(UploadPlanError::invalidPath(std::move(path)));
  }
  // An ignored name stays local even where the path rules would refuse it.
  if (IgnoreList::isIgnored(filename)) return CreatePlan::LocalOnly{brainId, std::move(path)};
  if (!PathRules::isNormalizedWritePath(path)) {
    return rejectCreate(UploadPlanError::invalidPath(std::move(path)));
  }
  if (isDirectory) return CreatePlan::LocalDirectoryOnly{brainId, std::move(path)};
  return CreatePlan::Upload{brainId, std::move(path)};
}

MovePlan planMove(const NodeRecord& record, const std::optional<std::string>& newName,
                  const std::optional<SyncItemIdentifier>& newParent,
                  const std::optional<std::string>& newParentPath,
                  const std::optional<Uuid>& inboxBrainId) {
  const std::size_t slash = record.path.rfind('/');
  const std::string_view oldParent = slash == std::string::npos
                                         ? std::string_view()
                                         : std::string_view(record.path).substr(0, slash);
  const std::string name = newName ? *newName : record.path.substr(slash + 1);

  Uuid brainId = record.brainId;
  std::string_view folder = oldParent;
  if (newParent) {
    if (const auto* brain = std::get_if<SyncItemIdentifier::Brain>(&newParent->value)) {
      brainId = brain->brainId;
      folder = {};
    } else if (const auto* node = std::get_if<SyncItemIdentifier::Node>(&newParent->value)) {
      if (!newParentPath) return rejectMove(UploadPlanError::invalidPath(name));
      brainId = node->brainId;
      folder = *newParentPath;
    } else {
      if (!inboxBrainId) return rejectMove(UploadPlanError::noInboxBrain());
      brainId = *inboxBrainId;
      folder = {};
    }
  }
  // Before any test of the name: the caller has a message of its own.
  if (brainId != record.brainId) return MovePlan::CrossBrainUnsupported{};

  std::string newPath = join(folder, name);
  if (newPath == record.path) return MovePlan::NoChange{};
  if (name.find('/') != std::string::npos || !PathRules::isNormalizedWritePath(newPath)) {
    return rejectMove(UploadPlanError::invalidPath(std::move(newPath)));
  }
  // A local-only item may take an ignored name: nothing of it reaches the
  // server anyway.
  if (!record.localOnly && IgnoreList::isIgnored(name)) {
    return rejectMove(UploadPlanError::junkDestination(name));
  }
  if (newPath.size() > record.path.size() && newPath[record.path.size()] == '/' &&
      newPath.starts_with(record.path)) {
    return rejectMove(UploadPlanError::moveIntoSelf());
  }
  if (record.localOnly) return MovePlan::LocalOnly{record.brainId, record.path, std::move(newPath)};
  return MovePlan::Move{record.brainId, record.path, std::move(newPath)};
}

MovePlan planRename(const NodeRecord& record, const std::string& newName) {
  return planMove(record, newName, std::nullopt, std::nullopt, std::nullopt);
}

MovePlan planReparent(const NodeRecord& record, const SyncItemIdentifier& newParent,
                      const std::optional<std::string>& newParentPath,
                      const std::optional<Uuid>& inboxBrainId) {
  return planMove(record, std::nullopt, newParent, newParentPath, inboxBrainId);
}

ContentUploadPlan planContentUpload(Bytes data) {
  const auto size = static_cast<std::int64_t>(data.size());
  if (size > maxUploadBytes) return ContentUploadPlan::TooLarge{size};
  ContentClassification classification = ContentClassifier::classify(std::move(data));
  if (auto* text = std::get_if<ContentClassification::Text>(&classification.value)) {
    return ContentUploadPlan::Text{std::move(text->text)};
  }
  Bytes& bytes = std::get<ContentClassification::Blob>(classification.value).data;
  std::string hash = ContentClassifier::blobHash(bytes);
  return ContentUploadPlan::Blob{std::move(bytes), std::move(hash), size};
}

std::string defaultTitle(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return std::string(name);
  return std::string(name.substr(0, dot));
}

std::optional<Uuid> resolveInboxBrain(const std::vector<BrainRecord>& brains,
                                      const std::optional<Uuid>& preferredId) {
  if (preferredId && std::any_of(brains.begin(), brains.end(), [&](const BrainRecord& brain) {
        return brain.brainId == *preferredId;
      })) {
    return preferredId;
  }
  struct Entry {
    std::string name;
    const BrainRecord* brain;
  };
  std::vector<Entry> ordered;
  ordered.reserve(brains.size());
  for (const BrainRecord& brain : brains) ordered.push_back({asciiLowercased(brain.name), &brain});
  std::sort(ordered.begin(), ordered.end(), [](const Entry& a, const Entry& b) {
    return std::forward_as_tuple(a.name, a.brain->slug, a.brain->brainId.toString()) <
           std::forward_as_tuple(b.name, b.brain->slug, b.brain->brainId.toString());
  });
  if (ordered.empty()) return std::nullopt;
  for (const Entry& entry : ordered) {
    if (asciiLowercased(entry.brain->slug) == "inbox") return entry.brain->brainId;
  }
  return ordered.front().brain->brainId;
}

}  // namespace synckit::UploadPlanner
