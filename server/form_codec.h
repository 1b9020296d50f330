#pragma once
// Percent-encoding for redirect URLs and decoding of form bodies and query text.

#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace devserver {

// Encodes every byte except A-Z a-z 0-9 - . _ ~ as %XX (upper-case hex).
std::string percentEncode(std::string_view text);

// Decodes %XX escapes; with `plusIsSpace` a "+" becomes a space, as in form bodies.
// A malformed escape is kept as written rather than rejected: lenient on input.
std::string percentDecode(std::string_view text, bool plusIsSpace);

// Parses name=value pairs joined by "&". A repeated name keeps its first value.
std::map<std::string, std::string> decodeForm(std::string_view body);

// Appends query items to a URL that may already carry a query.
std::string appendQuery(const std::string& url,
                        const std::initializer_list<std::pair<std::string, std::string>>& items);

}  // namespace devserver
