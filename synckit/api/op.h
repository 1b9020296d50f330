#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "synckit/store/node_kind.h"

namespace synckit {

// One operation inside a change-feed entry. On the wire it is a flat object
// whose "kind" member selects the case; every case carries the brain-relative
// path it acts on.
struct Op {
  struct Create {
    std::string path;
    std::string title;
    std::vector<std::string> tags;
    bool isDirectory = false;
    std::optional<NodeKind> nodeKind;
    bool operator==(const Create&) const = default;
  };
  struct Update {
    std::string path;
    std::optional<std::string> title;
    std::optional<std::vector<std::string>> tags;
    bool bodyChanged = false;
    std::optional<NodeKind> nodeKind;
    bool operator==(const Update&) const = default;
  };
  struct Move {
    std::string path;
    std::string newPath;
    bool operator==(const Move&) const = default;
  };
  struct Mkdir {
    std::string path;
    std::string title;
    bool operator==(const Mkdir&) const = default;
  };
  struct Delete {
    std::string path;
    bool operator==(const Delete&) const = default;
  };

  // In the order of the variant's alternatives. `delete_` because `delete`
  // is a keyword; its wire name is "delete".
  enum class Kind { create, update, move, mkdir, delete_ };

  using Value = std::variant<Create, Update, Move, Mkdir, Delete>;

  Op(Create op) : value(std::move(op)) {}
  Op(Update op) : value(std::move(op)) {}
  Op(Move op) : value(std::move(op)) {}
  Op(Mkdir op) : value(std::move(op)) {}
  Op(Delete op) : value(std::move(op)) {}

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  const std::string& path() const noexcept {
    return std::visit([](const auto& op) -> const std::string& { return op.path; }, value);
  }
  template <class Case>
  const Case* as() const noexcept {
    return std::get_if<Case>(&value);
  }

  Value value;

  bool operator==(const Op&) const = default;
};

// The wire name of an op kind ("create", ..., "delete").
std::string_view toString(Op::Kind kind);
std::optional<Op::Kind> parseOpKind(std::string_view text);

}  // namespace synckit
