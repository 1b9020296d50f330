#include "synckit/store/brain_folder_names.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "synckit/platform/provider_paths.h"

namespace synckit {
namespace {

constexpr std::size_t kMaxComponent = 255;

bool usableComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name != ProviderPaths::stagingFolderName &&
         name.size() <= kMaxComponent && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// `text` cut to at most `bytes` bytes without splitting a UTF-8 sequence.
std::string_view truncated(std::string_view text, std::size_t bytes) {
  if (text.size() <= bytes) return text;
  std::size_t end = bytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

// How far a brain's folder name has had to go to be told apart.
enum class Level { plain, slug, shortId, wholeId };

struct Candidate {
  const synckit::BrainRecord* brain;
  std::string base;
  Level level = Level::plain;
  std::string name;
};

std::string withSuffix(std::string_view base, std::string_view tag) {
  const std::string suffix = " (" + std::string(tag) + ")";
  return std::string(truncated(base, kMaxComponent - suffix.size())) + suffix;
}

std::string nameAt(const Candidate& candidate) {
  const std::string id = candidate.brain->brainId.toString();
  switch (candidate.level) {
    case Level::plain:
      return candidate.base;
    case Level::slug:
      return withSuffix(candidate.base, candidate.brain->slug);
    case Level::shortId:
      return withSuffix(candidate.base, std::string_view(id).substr(0, 8));
    case Level::wholeId:
      return withSuffix(candidate.base, id);
  }
  return candidate.base;
}

// The next level whose name is a usable component; a slug that could not
// stand in a name is skipped.
void escalate(Candidate& candidate) {
  do {
    candidate.level = static_cast<Level>(static_cast<int>(candidate.level) + 1);
    candidate.name = nameAt(candidate);
  } while (candidate.level != Level::wholeId &&
           (!usableComponent(candidate.name) ||
            (candidate.level == Level::slug && !usableComponent(candidate.brain->slug))));
}

}  // namespace

std::map<synckit::Uuid, std::string> brainFolderNames(
    const std::vector<synckit::BrainRecord>& brains) {
  std::vector<Candidate> candidates;
  candidates.reserve(brains.size());
  for (const auto& brain : brains) {
    std::string base = usableComponent(brain.name)   ? brain.name
                       : usableComponent(brain.slug) ? brain.slug
                                                     : brain.brainId.toString().substr(0, 8);
    candidates.push_back({&brain, base, Level::plain, base});
  }
  // Every brain that shares its name with another moves one level on, until
  // no two share one. Brains at the last level never share a name (their
  // suffixes are their distinct ids at equal length), so every round moves
  // at least one brain on and the loop ends. The rounds depend only on the
  // set of names, never on the order of `brains`.
  for (;;) {
    std::map<std::string_view, int> uses;
    for (const auto& candidate : candidates) ++uses[candidate.name];
    bool clash = false;
    std::vector<Candidate*> moving;
    for (auto& candidate : candidates) {
      if (uses[candidate.name] > 1 && candidate.level != Level::wholeId) {
        moving.push_back(&candidate);
      }
    }
    for (Candidate* candidate : moving) {
      escalate(*candidate);
      clash = true;
    }
    if (!clash) break;
  }
  std::map<synckit::Uuid, std::string> names;
  for (auto& candidate : candidates) names[candidate.brain->brainId] = std::move(candidate.name);
  return names;
}

}  // namespace synckit
