#include "synckit/base/url.h"

#include <cctype>

namespace synckit {
namespace {

bool isUnreserved(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool isSubDelim(unsigned char c) {
  switch (c) {
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '*':
    case '+':
    case ',':
    case ';':
    case '=':
      return true;
    default:
      return false;
  }
}

// Checks that `text` only holds characters allowed in a URL component
// (unreserved, sub-delimiters, the `extra` characters, or a valid %XX escape).
bool isValidPart(std::string_view text, std::string_view extra) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c == '%') {
      if (i + 2 >= text.size()) return false;
      if (!std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
          !std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
        return false;
      }
      i += 2;
      continue;
    }
    if (isUnreserved(c) || isSubDelim(c) ||
        extra.find(static_cast<char>(c)) != std::string_view::npos) {
      continue;
    }
    return false;
  }
  return true;
}

bool isValidScheme(std::string_view scheme) {
  if (scheme.empty() || !std::isalpha(static_cast<unsigned char>(scheme[0]))) return false;
  for (char c : scheme) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.')
      return false;
  }
  return true;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  return std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
}

// Escapes that are not two hex digits stay as written; parse() lets none
// through, but a query set by hand may hold anything.
std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() &&
        std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

std::optional<URLComponents> URLComponents::parse(std::string_view text) {
  URLComponents parts;
  std::string_view rest = text;

  // Scheme: letters, digits, "+", "-", "." before the first ":" (when that
  // ":" comes before any "/", "?" or "#").
  auto colon = rest.find(':');
  auto firstDelimiter = rest.find_first_of("/?#");
  if (colon != std::string_view::npos &&
      (firstDelimiter == std::string_view::npos || colon < firstDelimiter)) {
    std::string_view scheme = rest.substr(0, colon);
    if (!isValidScheme(scheme)) return std::nullopt;
    parts.scheme = std::string(scheme);
    rest.remove_prefix(colon + 1);
  }

  auto hash = rest.find('#');
  if (hash != std::string_view::npos) {
    std::string_view fragment = rest.substr(hash + 1);
    if (!isValidPart(fragment, ":@/?")) return std::nullopt;
    parts.fragment = std::string(fragment);
    rest = rest.substr(0, hash);
  }
  auto question = rest.find('?');
  if (question != std::string_view::npos) {
    std::string_view query = rest.substr(question + 1);
    if (!isValidPart(query, ":@/?")) return std::nullopt;
    parts.percentEncodedQuery = std::string(query);
    rest = rest.substr(0, question);
  }

  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    auto slash = rest.find('/');
    std::string_view authority = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);

    auto at = authority.rfind('@');
    if (at != std::string_view::npos) {
      std::string_view userInfo = authority.substr(0, at);
      if (!isValidPart(userInfo, ":")) return std::nullopt;
      parts.userInfo = std::string(userInfo);
      authority.remove_prefix(at + 1);
    }
    std::string_view hostPart = authority;
    std::string_view portPart;
    bool hasPort = false;
    if (authority.starts_with('[')) {
      auto close = authority.find(']');
      if (close == std::string_view::npos) return std::nullopt;
      hostPart = authority.substr(1, close - 1);
      for (char c : hostPart) {
        if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':' && c != '.')
          return std::nullopt;
      }
      std::string_view after = authority.substr(close + 1);
      if (!after.empty()) {
        if (after[0] != ':') return std::nullopt;
        portPart = after.substr(1);
        hasPort = true;
      }
    } else {
      auto portColon = authority.rfind(':');
      if (portColon != std::string_view::npos) {
        hostPart = authority.substr(0, portColon);
        portPart = authority.substr(portColon + 1);
        hasPort = true;
      }
      if (!isValidPart(hostPart, "")) return std::nullopt;
    }
    if (hasPort && !portPart.empty()) {
      if (portPart.size() > 5) return std::nullopt;
      int port = 0;
      for (char c : portPart) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
        port = port * 10 + (c - '0');
      }
      if (port > 65535) return std::nullopt;
      parts.port = port;
    }
    parts.host = std::string(hostPart);
  }

  if (!isValidPart(rest, ":@/")) return std::nullopt;
  parts.percentEncodedPath = std::string(rest);
  return parts;
}

std::optional<std::string> URLComponents::string() const {
  std::string out;
  if (scheme) {
    if (!isValidScheme(*scheme)) return std::nullopt;
    out += *scheme + ":";
  }
  bool hasAuthority = host.has_value() || userInfo.has_value() || port.has_value();
  if (hasAuthority) {
    if (!percentEncodedPath.empty() && percentEncodedPath[0] != '/') return std::nullopt;
    out += "//";
    if (userInfo) out += *userInfo + "@";
    std::string hostText = host.value_or("");
    if (hostText.find(':') != std::string::npos) hostText = "[" + hostText + "]";
    out += hostText;
    if (port) out += ":" + std::to_string(*port);
  } else if (percentEncodedPath.starts_with("//")) {
    return std::nullopt;  // would read back as an authority
  }
  out += percentEncodedPath;
  if (percentEncodedQuery) out += "?" + *percentEncodedQuery;
  if (fragment) out += "#" + *fragment;
  return out;
}

std::vector<URLComponents::QueryItem> URLComponents::queryItems() const {
  std::vector<QueryItem> items;
  if (!percentEncodedQuery || percentEncodedQuery->empty()) return items;
  std::string_view rest = *percentEncodedQuery;
  while (true) {
    const auto amp = rest.find('&');
    const std::string_view item = rest.substr(0, amp);
    const auto eq = item.find('=');
    if (eq == std::string_view::npos) {
      items.emplace_back(percentDecode(item), std::nullopt);
    } else {
      items.emplace_back(percentDecode(item.substr(0, eq)), percentDecode(item.substr(eq + 1)));
    }
    if (amp == std::string_view::npos) break;
    rest.remove_prefix(amp + 1);
  }
  return items;
}

}  // namespace synckit
