#include "synckit/api/sync_api_client.h"

#include <algorithm>
#include <cctype>
#include <chrono>

#include "synckit/api/request_bodies.h"
#include "synckit/api/response_envelopes.h"
#include "synckit/api/sync_json.h"
#include "synckit/base/error.h"
#include "synckit/base/utf8_text.h"

namespace synckit {
namespace {

constexpr std::string_view jsonType = "application/json";

// A shared_ptr that does not own: lets the borrowing constructor share the
// owning one's storage.
template <class T>
std::shared_ptr<T> borrowed(T& object) {
  return std::shared_ptr<T>(std::shared_ptr<T>(), &object);
}

Bytes bytesOf(std::string text) { return Bytes(text.begin(), text.end()); }

}  // namespace

SyncAPIClient::SyncAPIClient(std::string baseURL, std::shared_ptr<HTTPTransport> transport,
                             std::shared_ptr<TokenProviding> tokens,
                             std::chrono::milliseconds requestTimeout)
    : baseURL_(std::move(baseURL)),
      transport_(std::move(transport)),
      tokens_(std::move(tokens)),
      requestTimeout_(requestTimeout) {}

SyncAPIClient::SyncAPIClient(std::string baseURL, HTTPTransport& transport, TokenProviding& tokens,
                             std::chrono::milliseconds requestTimeout)
    : SyncAPIClient(std::move(baseURL), borrowed(transport), borrowed(tokens), requestTimeout) {}

std::vector<std::string> SyncAPIClient::brainSegments(const Uuid& brainId, std::string_view last) {
  return {"api", "sync", "brains", brainId.toLowerString(), std::string(last)};
}

HTTPResponse SyncAPIClient::send(const Endpoint& endpoint, Bytes body) const {
  HTTPRequest request;
  request.url = makeURL(baseURL_, endpoint.segments, endpoint.query);
  // The token is fetched only once the request is known to be well formed,
  // and a provider failure leaves the transport untouched.
  const std::string token = tokens_->currentAccessToken();
  request.method = endpoint.method;
  request.timeout = requestTimeout_;
  request.headers.emplace_back("Authorization", "Bearer " + token);
  request.headers.emplace_back("Accept", endpoint.accept);
  if (endpoint.contentType) request.headers.emplace_back("Content-Type", *endpoint.contentType);
  request.body = std::move(body);

  HTTPResponse response = transport_->send(request);
  if (response.status < 200 || response.status > 299)
    throw makeAPIError(response.status, response.body);
  return response;
}

SyncAPIError SyncAPIClient::makeAPIError(int status, const Bytes& body) {
  try {
    auto envelope = SyncJSON::decode<SyncAPIError::Envelope>(body);
    return SyncAPIError(status, std::move(envelope.error.code), std::move(envelope.error.message));
  } catch (const DecodingError&) {
    std::string text =
        decodeUTF8Lossy(std::string_view(reinterpret_cast<const char*>(body.data()), body.size()));
    std::string message = "HTTP " + std::to_string(status);
    if (!text.empty()) message += ": " + text;
    return SyncAPIError(status, "unknown", std::move(message));
  }
}

Device SyncAPIClient::registerDevice(const std::string& name, const std::string& platform) const {
  auto body = SyncJSON::encode(RegisterDeviceBody{name, platform});
  auto response =
      send({"POST", {"api", "sync", "devices"}, {}, std::string(jsonType), std::string(jsonType)},
           bytesOf(std::move(body)));
  return SyncJSON::decode<DeviceEnvelope>(response.body).device;
}

std::vector<Device> SyncAPIClient::listDevices() const {
  auto response =
      send({"GET", {"api", "sync", "devices"}, {}, std::string(jsonType), std::nullopt}, {});
  return SyncJSON::decode<DevicesEnvelope>(response.body).devices;
}

std::vector<Brain> SyncAPIClient::listBrains() const {
  auto response =
      send({"GET", {"api", "sync", "brains"}, {}, std::string(jsonType), std::nullopt}, {});
  return SyncJSON::decode<BrainsEnvelope>(response.body).brains;
}

ChangesResponse SyncAPIClient::fetchChanges(const Uuid& brainId,
                                            const std::optional<std::string>& cursor,
                                            const std::string& deviceId) const {
  QueryItems query;
  if (cursor) query.emplace_back("cursor", *cursor);
  query.emplace_back("deviceId", deviceId);
  auto response = send({"GET", brainSegments(brainId, "changes"), std::move(query),
                        std::string(jsonType), std::nullopt},
                       {});
  return SyncJSON::decode<ChangesResponse>(response.body);
}

DownloadedFile SyncAPIClient::readFile(const Uuid& brainId, const std::string& path,
                                       const std::string& at) const {
  auto response = send({"GET",
                        brainSegments(brainId, "file"),
                        {{"path", path}, {"at", at}},
                        "application/json, application/octet-stream",
                        std::nullopt},
                       {});
  auto contentType = response.header("Content-Type");
  auto type = asciiLowercased(contentType.value_or(""));
  if (type.starts_with("application/json")) {
    return DownloadedFile::text(SyncJSON::decode<TextFileEnvelope>(response.body).content);
  }
  if (type.starts_with("application/octet-stream"))
    return DownloadedFile::blob(std::move(response.body));
  throw SyncClientError::unexpectedContentType(std::move(contentType));
}

WriteResult SyncAPIClient::sendJSON(const std::string& method, const Uuid& brainId,
                                    const std::string& segment, std::string body) const {
  auto response = send(
      {method, brainSegments(brainId, segment), {}, std::string(jsonType), std::string(jsonType)},
      bytesOf(std::move(body)));
  return SyncJSON::decode<WriteResult>(response.body);
}

WriteResult SyncAPIClient::putText(const Uuid& brainId, const std::string& deviceId,
                                   const std::string& path, const std::optional<std::string>& title,
                                   const std::string& body) const {
  return sendJSON("PUT", brainId, "file",
                  SyncJSON::encode(PutTextBody{deviceId, path, title, body}));
}

WriteResult SyncAPIClient::putBlobFile(const Uuid& brainId, const std::string& deviceId,
                                       const std::string& path,
                                       const std::optional<std::string>& title,
                                       const std::string& blobHash, std::int64_t blobSize) const {
  return sendJSON("PUT", brainId, "file",
                  SyncJSON::encode(PutBlobBody{deviceId, path, title, blobHash, blobSize}));
}

WriteResult SyncAPIClient::move(const Uuid& brainId, const std::string& deviceId,
                                const std::string& fromPath, const std::string& toPath) const {
  return sendJSON("POST", brainId, "move", SyncJSON::encode(MoveBody{deviceId, fromPath, toPath}));
}

DeleteResult SyncAPIClient::deleteFile(const Uuid& brainId, const std::string& deviceId,
                                       const std::string& path) const {
  auto body = SyncJSON::encode(DeleteBody{deviceId, path});
  auto response = send(
      {"DELETE", brainSegments(brainId, "file"), {}, std::string(jsonType), std::string(jsonType)},
      bytesOf(std::move(body)));
  return SyncJSON::decode<DeleteResult>(response.body);
}

BlobReceipt SyncAPIClient::uploadBlob(const Uuid& brainId, const std::string& deviceId,
                                      Bytes data) const {
  auto response = send({"POST",
                        brainSegments(brainId, "blobs"),
                        {{"deviceId", deviceId}},
                        std::string(jsonType),
                        "application/octet-stream"},
                       std::move(data));
  return SyncJSON::decode<BlobReceipt>(response.body);
}

}  // namespace synckit
