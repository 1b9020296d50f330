#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace synckit {

// The parts of an absolute or relative URL reference (RFC 3986 generic
// syntax). Path and query are kept exactly as written (already
// percent-encoded); nothing is resolved or normalised.
struct URLComponents {
  std::optional<std::string> scheme;
  std::optional<std::string> userInfo;
  std::optional<std::string> host;  // without brackets for IPv6 literals
  std::optional<int> port;
  std::string percentEncodedPath;
  std::optional<std::string> percentEncodedQuery;
  std::optional<std::string> fragment;

  // Absent when the text is not a URL reference: characters outside the
  // allowed set, a malformed authority or port, a malformed percent escape.
  static std::optional<URLComponents> parse(std::string_view text);

  // The text of the URL; absent when the parts cannot form one (a path that
  // does not begin with "/" after an authority, a scheme with bad characters).
  std::optional<std::string> string() const;

  // The query's items in order, names and values percent-decoded ("+" is
  // left as it is); an item without "=" has no value. None without a query
  // or with an empty one.
  using QueryItem = std::pair<std::string, std::optional<std::string>>;
  std::vector<QueryItem> queryItems() const;

  bool operator==(const URLComponents&) const = default;
};

}  // namespace synckit
