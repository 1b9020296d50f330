#include "synckit/api/op.h"

#include <array>

namespace synckit {
namespace {

constexpr std::array<std::string_view, 5> kindNames = {"create", "update", "move", "mkdir", "delete"};

}  // namespace

std::string_view toString(Op::Kind kind) { return kindNames[static_cast<std::size_t>(kind)]; }

std::optional<Op::Kind> parseOpKind(std::string_view text) {
  for (std::size_t i = 0; i < kindNames.size(); ++i) {
    if (kindNames[i] == text) return static_cast<Op::Kind>(i);
  }
  return std::nullopt;
}

}  // namespace synckit
