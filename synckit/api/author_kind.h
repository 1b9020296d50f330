#pragma once

#include <optional>
#include <string_view>

namespace synckit {

// Who wrote a change-feed entry: a team member through a client, or an agent
// acting for one.
enum class AuthorKind { member, agent };

constexpr std::string_view toString(AuthorKind kind) { return kind == AuthorKind::member ? "member" : "agent"; }

constexpr std::optional<AuthorKind> parseAuthorKind(std::string_view text) {
  if (text == "member") return AuthorKind::member;
  if (text == "agent") return AuthorKind::agent;
  return std::nullopt;
}

}  // namespace synckit
