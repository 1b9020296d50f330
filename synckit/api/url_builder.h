#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace synckit {

using QueryItems = std::vector<std::pair<std::string, std::string>>;

// Percent-encodes the UTF-8 bytes of `text`: A-Z, a-z, 0-9, "-", ".", "_" and
// "~" stay as they are, every other byte becomes "%XX" (upper-case hex). Used
// for path segments, query names and values, and form bodies alike.
std::string percentEncode(std::string_view text);

// The service URL for `segments` below `baseURL`: the base's path without its
// trailing "/"s, then "/" and the encoded segments joined by "/". The query
// items, encoded and joined with "&" in the given order, replace any query of
// the base; no items means no query at all. Throws SyncClientError::invalidURL.
std::string makeURL(std::string_view baseURL, const std::vector<std::string>& segments,
                    const QueryItems& query = {});

// "name=value&..." with both sides percent-encoded, for query strings and
// form bodies.
std::string encodeQueryItems(const QueryItems& items);

}  // namespace synckit
