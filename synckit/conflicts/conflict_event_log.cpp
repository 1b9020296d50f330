#include "synckit/conflicts/conflict_event_log.h"

#include <nlohmann/json.hpp>
#include <string>

#include "synckit/api/encoding_error.h"
#include "synckit/api/json_reader.h"
#include "synckit/api/sync_json.h"

namespace synckit::ConflictEventLog {
namespace {

using nlohmann::json;

ConflictEvent readEvent(const JSONReader& reader) {
  auto kindReader = reader.member("kind");
  auto kindText = kindReader.string();
  auto kind = parseConflictEventKind(kindText);
  if (!kind) {
    kindReader.fail(DecodingError::Kind::dataCorrupted,
                    "Unknown conflict event kind \"" + kindText + "\"");
  }
  auto brainReader = reader.member("brainId");
  auto brainText = brainReader.string();
  auto brainId = Uuid::parse(brainText);
  if (!brainId) {
    brainReader.fail(DecodingError::Kind::dataCorrupted, "Invalid UUID \"" + brainText + "\"");
  }
  ConflictEvent event;
  event.kind = *kind;
  event.brainId = *brainId;
  event.path = reader.member("path").string();
  if (auto copyPath = reader.optionalMember("copyPath")) event.copyPath = copyPath->string();
  event.message = reader.member("message").string();
  event.at = reader.member("at").date();
  return event;
}

std::vector<ConflictEvent> readList(MetadataStore& store) {
  auto stored = store.metaValue(MetaKey::conflictEvents);
  if (!stored) return {};
  return readJSONDocument(*stored,
                          [](const JSONReader& reader) { return reader.array(readEvent); });
}

// nlohmann's object is a std::map, so the keys come out sorted.
void writeList(const std::vector<ConflictEvent>& events, MetadataStore& store) {
  if (events.empty()) {
    store.setMeta(MetaKey::conflictEvents, std::nullopt);
    return;
  }
  json list = json::array();
  for (const ConflictEvent& event : events) {
    json object = {{"kind", std::string(toString(event.kind))},
                   {"brainId", event.brainId.toString()},
                   {"path", event.path},
                   {"message", event.message},
                   {"at", SyncJSON::formatDate(event.at)}};
    if (event.copyPath) object["copyPath"] = *event.copyPath;
    list.push_back(std::move(object));
  }
  std::string text;
  try {
    text = list.dump();
  } catch (const json::exception&) {
    throw EncodingError(
        "The value could not be written as JSON because it contains text that is not valid UTF-8.");
  }
  store.setMeta(MetaKey::conflictEvents, text);
}

}  // namespace

void append(const std::vector<ConflictEvent>& events, MetadataStore& store) {
  if (events.empty()) return;
  store.writeTransaction([&] {
    auto list = readList(store);
    list.insert(list.end(), events.begin(), events.end());
    if (list.size() > maxEvents) {
      list.erase(list.begin(), list.end() - static_cast<std::ptrdiff_t>(maxEvents));
    }
    writeList(list, store);
  });
}

std::vector<ConflictEvent> drain(MetadataStore& store) {
  return store.writeTransaction([&] {
    auto list = readList(store);
    if (!list.empty()) writeList({}, store);
    return list;
  });
}

}  // namespace synckit::ConflictEventLog
