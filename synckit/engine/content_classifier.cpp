#include "synckit/engine/content_classifier.h"

#include <string_view>

#include "synckit/base/crypto.h"
#include "synckit/base/utf8_text.h"

namespace synckit::ContentClassifier {

ContentClassification classify(Bytes data) {
  const std::string_view view(reinterpret_cast<const char*>(data.data()), data.size());
  // A byte-order mark would not survive the round trip through a text body.
  const bool text = !view.starts_with("\xEF\xBB\xBF") &&
                    view.find('\0') == std::string_view::npos &&
                    utf16Length(view).value_or(maxTextLength + 1) <= maxTextLength;
  if (!text) return ContentClassification::blob(std::move(data));
  return ContentClassification::text(std::string(view));
}

std::string blobHash(std::span<const std::uint8_t> data) { return hexLower(sha256(data)); }

}  // namespace synckit::ContentClassifier
