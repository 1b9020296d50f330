#include "server/seed.h"

#include <string>

#include "server/shared_state.h"

namespace devserver {
namespace {

// A 1x1 PNG, so that the sample has a real binary file.
const unsigned char kPixel[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48,
    0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00, 0x00,
    0x00, 0x1f, 0x15, 0xc4, 0x89, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x44, 0x41, 0x54, 0x78,
    0x9c, 0x63, 0xf8, 0xcf, 0xc0, 0xf0, 0x1f, 0x00, 0x05, 0x00, 0x01, 0xff, 0x89, 0x99,
    0x3d, 0x1d, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

struct SampleText {
  const char* path;
  const char* content;
};

const SampleText kTexts[] = {
    {"Welcome.md",
     "# Welcome to your demo brain\n\nEverything here lives on the reference service. Edit a "
     "file in the mirror folder and watch it sync.\n"},
    {"notes/ideas.md", "# Ideas\n\n- A garden journal\n- Recipes worth keeping\n"},
    {"notes/2025/march.md", "# March\n\nPlanted tomatoes on the 12th.\n"},
    {"projects/halvark/todo.txt", "write the release notes\ntry a conflict on purpose\n"},
};

}  // namespace

void seedDemo(SharedState& state) {
  bool exists = state.read([](const ServiceModel& model) {
    for (const auto& [id, brain] : model.brains) {
      if (brain.slug == "demo") return true;
    }
    return false;
  });
  if (exists) return;
  BlobReceipt pixel =
      state.blobs().put(std::string(reinterpret_cast<const char*>(kPixel), sizeof kPixel));
  state.write([&](ServiceModel& model) {
    std::set<std::string> everyone;
    for (const auto& [member, password] : model.members()) everyone.insert(member);
    Brain& brain = model.createBrain("Demo", "demo", everyone, std::nullopt);
    Actor seeder{Author{"agent", "seed", std::string("devserver")}, "", true};
    std::int64_t now = state.now();
    for (const auto& text : kTexts) {
      brain.tree.putText(seeder, text.path, std::nullopt, text.content, now);
    }
    brain.tree.putBlob(seeder, "images/pixel.png", std::nullopt, pixel.hash, pixel.size, now);
    brain.tree.makeFolder(seeder, "archive", now);
  });
}

}  // namespace devserver
