#include "synckit/conflicts/sync_error_log.h"

#include <nlohmann/json.hpp>

#include "synckit/api/encoding_error.h"
#include "synckit/store/meta_key.h"

namespace synckit::SyncErrorLog {
namespace {

using nlohmann::json;

std::vector<std::string> readList(MetadataStore& store) {
  auto stored = store.metaValue(MetaKey::syncErrors);
  if (!stored) return {};
  std::vector<std::string> list;
  json parsed = json::parse(*stored, nullptr, false);
  if (!parsed.is_array()) return {};
  for (const json& item : parsed) {
    if (item.is_string()) list.push_back(item.get<std::string>());
  }
  return list;
}

void writeList(const std::vector<std::string>& list, MetadataStore& store) {
  if (list.empty()) {
    store.setMeta(MetaKey::syncErrors, std::nullopt);
    return;
  }
  std::string text;
  try {
    text = json(list).dump();
  } catch (const json::exception&) {
    throw EncodingError(
        "The value could not be written as JSON because it contains text that is not valid UTF-8.");
  }
  store.setMeta(MetaKey::syncErrors, text);
}

}  // namespace

void append(const std::vector<std::string>& messages, MetadataStore& store) {
  if (messages.empty()) return;
  store.writeTransaction([&] {
    auto list = readList(store);
    list.insert(list.end(), messages.begin(), messages.end());
    if (list.size() > maxMessages) {
      list.erase(list.begin(), list.end() - static_cast<std::ptrdiff_t>(maxMessages));
    }
    writeList(list, store);
  });
}

std::vector<std::string> drain(MetadataStore& store) {
  return store.writeTransaction([&] {
    auto list = readList(store);
    if (store.metaValue(MetaKey::syncErrors)) writeList({}, store);
    return list;
  });
}

}  // namespace synckit::SyncErrorLog
