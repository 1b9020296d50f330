#include "synckit/api/sync_json.h"

#include <map>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "synckit/api/encoding_error.h"
#include "synckit/api/json_reader.h"

namespace synckit {
namespace {

using nlohmann::json;

// Request bodies go out with their keys in sorted order. nlohmann's default
// object is a std::map ordered by the key bytes, which gives exactly that;
// an insertion-ordered object type would silently break it.
template <class>
struct IsStdMap : std::false_type {};
template <class... Args>
struct IsStdMap<std::map<Args...>> : std::true_type {};
static_assert(IsStdMap<json::object_t>::value, "sync JSON objects must keep their keys sorted");

template <class T>
struct Tag {};

// ---- decoding ----

NodeKind readNodeKind(const JSONReader& reader) {
  auto text = reader.string();
  auto kind = parseNodeKind(text);
  if (!kind) reader.fail(DecodingError::Kind::dataCorrupted, "Unknown node kind \"" + text + "\"");
  return *kind;
}

AuthorKind readAuthorKind(const JSONReader& reader) {
  auto text = reader.string();
  auto kind = parseAuthorKind(text);
  if (!kind)
    reader.fail(DecodingError::Kind::dataCorrupted, "Unknown author kind \"" + text + "\"");
  return *kind;
}

std::optional<std::string> optionalString(const JSONReader& reader, std::string_view key) {
  auto member = reader.optionalMember(key);
  if (!member) return std::nullopt;
  return member->string();
}

std::string requiredString(const JSONReader& reader, std::string_view key) {
  return reader.member(key).string();
}

// A node id becomes part of the node's item identifier, whose text form
// cannot hold an empty one; such a node could never be named again.
std::string requiredNodeId(const JSONReader& reader) {
  auto member = reader.member("nodeId");
  std::string nodeId = member.string();
  if (nodeId.empty()) {
    member.fail(DecodingError::Kind::dataCorrupted,
                "Empty node id for \"" + member.codingPath() + "\".");
  }
  return nodeId;
}

Brain read(const JSONReader& r, Tag<Brain>) {
  return Brain{requiredString(r, "id"), requiredString(r, "teamId"), requiredString(r, "name"),
               requiredString(r, "slug"), optionalString(r, "headCursor")};
}

Device read(const JSONReader& r, Tag<Device>) {
  Device device{requiredString(r, "id"), requiredString(r, "name"), requiredString(r, "platform"),
                r.member("createdAt").date(), std::nullopt};
  if (auto lastSeen = r.optionalMember("lastSeenAt")) device.lastSeenAt = lastSeen->date();
  return device;
}

Author read(const JSONReader& r, Tag<Author>) {
  return Author{readAuthorKind(r.member("kind")), requiredString(r, "memberId"),
                optionalString(r, "harness")};
}

Op read(const JSONReader& r, Tag<Op>) {
  auto kindReader = r.member("kind");
  auto kindText = kindReader.string();
  auto path = requiredString(r, "path");
  auto kind = parseOpKind(kindText);
  if (!kind)
    kindReader.fail(DecodingError::Kind::dataCorrupted, "Unknown op kind \"" + kindText + "\"");

  auto optionalNodeKind = [&]() -> std::optional<NodeKind> {
    auto member = r.optionalMember("nodeKind");
    if (!member) return std::nullopt;
    return readNodeKind(*member);
  };
  switch (*kind) {
    case Op::Kind::create:
      return Op::Create{std::move(path), requiredString(r, "title"), r.member("tags").stringArray(),
                        r.member("isDirectory").boolean(), optionalNodeKind()};
    case Op::Kind::update: {
      std::optional<std::vector<std::string>> tags;
      if (auto member = r.optionalMember("tags")) tags = member->stringArray();
      return Op::Update{std::move(path), optionalString(r, "title"), std::move(tags),
                        r.member("bodyChanged").boolean(), optionalNodeKind()};
    }
    case Op::Kind::move:
      return Op::Move{std::move(path), requiredString(r, "newPath")};
    case Op::Kind::mkdir:
      return Op::Mkdir{std::move(path), requiredString(r, "title")};
    case Op::Kind::delete_:
      return Op::Delete{std::move(path)};
  }
  kindReader.fail(DecodingError::Kind::dataCorrupted, "Unknown op kind \"" + kindText + "\"");
}

FeedEntry read(const JSONReader& r, Tag<FeedEntry>) {
  return FeedEntry{requiredString(r, "cursor"), r.member("at").date(),
                   read(r.member("author"), Tag<Author>{}),
                   r.member("ops").array([](const JSONReader& op) { return read(op, Tag<Op>{}); })};
}

SnapshotNode read(const JSONReader& r, Tag<SnapshotNode>) {
  SnapshotNode node;
  node.nodeId = requiredNodeId(r);
  node.path = requiredString(r, "path");
  node.title = requiredString(r, "title");
  node.isDirectory = r.member("isDirectory").boolean();
  node.kind = readNodeKind(r.member("kind"));
  node.blobHash = optionalString(r, "blobHash");
  if (auto size = r.optionalMember("blobSize")) node.blobSize = size->integer();
  node.updatedAt = r.member("updatedAt").date();
  return node;
}

ChangesResponse read(const JSONReader& r, Tag<ChangesResponse>) {
  bool reset = r.member("reset").boolean();
  auto cursor = optionalString(r, "cursor");
  if (reset) {
    return ChangesResponse::Reset{r.member("snapshot").array([](const JSONReader& node) {
                                    return read(node, Tag<SnapshotNode>{});
                                  }),
                                  std::move(cursor)};
  }
  return ChangesResponse::Incremental{r.member("entries").array([](const JSONReader& entry) {
                                        return read(entry, Tag<FeedEntry>{});
                                      }),
                                      std::move(cursor)};
}

NodeRef read(const JSONReader& r, Tag<NodeRef>) {
  return NodeRef{requiredNodeId(r), requiredString(r, "path")};
}

WriteResult read(const JSONReader& r, Tag<WriteResult>) {
  return WriteResult{read(r.member("node"), Tag<NodeRef>{}), requiredString(r, "cursor")};
}

DeleteResult read(const JSONReader& r, Tag<DeleteResult>) {
  return DeleteResult{r.member("deleted").boolean(), optionalString(r, "cursor")};
}

BlobReceipt read(const JSONReader& r, Tag<BlobReceipt>) {
  return BlobReceipt{requiredString(r, "hash"), r.member("size").integer()};
}

BrainsEnvelope read(const JSONReader& r, Tag<BrainsEnvelope>) {
  return BrainsEnvelope{
      r.member("brains").array([](const JSONReader& b) { return read(b, Tag<Brain>{}); })};
}

DevicesEnvelope read(const JSONReader& r, Tag<DevicesEnvelope>) {
  return DevicesEnvelope{
      r.member("devices").array([](const JSONReader& d) { return read(d, Tag<Device>{}); })};
}

DeviceEnvelope read(const JSONReader& r, Tag<DeviceEnvelope>) {
  return DeviceEnvelope{read(r.member("device"), Tag<Device>{})};
}

TextFileEnvelope read(const JSONReader& r, Tag<TextFileEnvelope>) {
  return TextFileEnvelope{requiredString(r, "path"), requiredString(r, "at"),
                          requiredString(r, "content")};
}

SyncAPIError::Envelope read(const JSONReader& r, Tag<SyncAPIError::Envelope>) {
  auto body = r.member("error");
  return SyncAPIError::Envelope{{requiredString(body, "code"), requiredString(body, "message")}};
}

// ---- encoding ----

void putOptional(json& object, const char* key, const std::optional<std::string>& value) {
  if (value) object[key] = *value;
}

json write(const Brain& brain) {
  json object{
      {"id", brain.id}, {"teamId", brain.teamId}, {"name", brain.name}, {"slug", brain.slug}};
  putOptional(object, "headCursor", brain.headCursor);
  return object;
}

json write(const Device& device) {
  json object{{"id", device.id},
              {"name", device.name},
              {"platform", device.platform},
              {"createdAt", SyncJSON::formatDate(device.createdAt)}};
  if (device.lastSeenAt) object["lastSeenAt"] = SyncJSON::formatDate(*device.lastSeenAt);
  return object;
}

json write(const Author& author) {
  json object{{"kind", std::string(toString(author.kind))}, {"memberId", author.memberId}};
  putOptional(object, "harness", author.harness);
  return object;
}

json write(const Op& op) {
  json object{{"kind", std::string(toString(op.kind()))}, {"path", op.path()}};
  if (auto create = op.as<Op::Create>()) {
    object["title"] = create->title;
    object["tags"] = create->tags;
    object["isDirectory"] = create->isDirectory;
    if (create->nodeKind) object["nodeKind"] = std::string(toString(*create->nodeKind));
  } else if (auto update = op.as<Op::Update>()) {
    putOptional(object, "title", update->title);
    if (update->tags) object["tags"] = *update->tags;
    object["bodyChanged"] = update->bodyChanged;
    if (update->nodeKind) object["nodeKind"] = std::string(toString(*update->nodeKind));
  } else if (auto move = op.as<Op::Move>()) {
    object["newPath"] = move->newPath;
  } else if (auto mkdir = op.as<Op::Mkdir>()) {
    object["title"] = mkdir->title;
  }
  return object;
}

json write(const FeedEntry& entry) {
  json ops = json::array();
  for (const auto& op : entry.ops) ops.push_back(write(op));
  return json{{"cursor", entry.cursor},
              {"at", SyncJSON::formatDate(entry.at)},
              {"author", write(entry.author)},
              {"ops", std::move(ops)}};
}

json write(const SnapshotNode& node) {
  json object{{"nodeId", node.nodeId},
              {"path", node.path},
              {"title", node.title},
              {"isDirectory", node.isDirectory},
              {"kind", std::string(toString(node.kind))},
              {"updatedAt", SyncJSON::formatDate(node.updatedAt)}};
  putOptional(object, "blobHash", node.blobHash);
  if (node.blobSize) object["blobSize"] = *node.blobSize;
  return object;
}

json write(const NodeRef& ref) { return json{{"nodeId", ref.nodeId}, {"path", ref.path}}; }

json write(const WriteResult& result) {
  return json{{"node", write(result.node)}, {"cursor", result.cursor}};
}

json write(const DeleteResult& result) {
  json object{{"deleted", result.deleted}};
  putOptional(object, "cursor", result.cursor);
  return object;
}

json write(const BlobReceipt& receipt) {
  return json{{"hash", receipt.hash}, {"size", receipt.size}};
}

json write(const RegisterDeviceBody& body) {
  return json{{"name", body.name}, {"platform", body.platform}};
}

json write(const PutTextBody& body) {
  json object{{"deviceId", body.deviceId}, {"path", body.path}, {"body", body.body}};
  putOptional(object, "title", body.title);
  return object;
}

json write(const PutBlobBody& body) {
  json object{{"deviceId", body.deviceId},
              {"path", body.path},
              {"blobHash", body.blobHash},
              {"blobSize", body.blobSize}};
  putOptional(object, "title", body.title);
  return object;
}

json write(const MoveBody& body) {
  return json{{"deviceId", body.deviceId}, {"fromPath", body.fromPath}, {"toPath", body.toPath}};
}

json write(const DeleteBody& body) {
  return json{{"deviceId", body.deviceId}, {"path", body.path}};
}

}  // namespace

namespace SyncJSON {

template <class T>
T decode(std::string_view text) {
  return readJSONDocument(text, [](const JSONReader& reader) { return read(reader, Tag<T>{}); });
}

template <class T>
std::string encode(const T& value) {
  try {
    return write(value).dump();
  } catch (const json::exception&) {
    throw EncodingError(
        "The value could not be written as JSON because it contains text that is not valid UTF-8.");
  }
}

std::string formatDate(Timestamp date) { return date.toString(); }

std::optional<Timestamp> parseDate(std::string_view text) { return Timestamp::parse(text); }

template Brain decode<Brain>(std::string_view);
template Device decode<Device>(std::string_view);
template Author decode<Author>(std::string_view);
template Op decode<Op>(std::string_view);
template FeedEntry decode<FeedEntry>(std::string_view);
template SnapshotNode decode<SnapshotNode>(std::string_view);
template ChangesResponse decode<ChangesResponse>(std::string_view);
template NodeRef decode<NodeRef>(std::string_view);
template WriteResult decode<WriteResult>(std::string_view);
template DeleteResult decode<DeleteResult>(std::string_view);
template BlobReceipt decode<BlobReceipt>(std::string_view);
template BrainsEnvelope decode<BrainsEnvelope>(std::string_view);
template DevicesEnvelope decode<DevicesEnvelope>(std::string_view);
template DeviceEnvelope decode<DeviceEnvelope>(std::string_view);
template TextFileEnvelope decode<TextFileEnvelope>(std::string_view);
template SyncAPIError::Envelope decode<SyncAPIError::Envelope>(std::string_view);

template std::string encode<Brain>(const Brain&);
template std::string encode<Device>(const Device&);
template std::string encode<Author>(const Author&);
template std::string encode<Op>(const Op&);
template std::string encode<FeedEntry>(const FeedEntry&);
template std::string encode<SnapshotNode>(const SnapshotNode&);
template std::string encode<NodeRef>(const NodeRef&);
template std::string encode<WriteResult>(const WriteResult&);
template std::string encode<DeleteResult>(const DeleteResult&);
template std::string encode<BlobReceipt>(const BlobReceipt&);
template std::string encode<RegisterDeviceBody>(const RegisterDeviceBody&);
template std::string encode<PutTextBody>(const PutTextBody&);
template std::string encode<PutBlobBody>(const PutBlobBody&);
template std::string encode<MoveBody>(const MoveBody&);
template std::string encode<DeleteBody>(const DeleteBody&);

}  // namespace SyncJSON
}  // namespace synckit
