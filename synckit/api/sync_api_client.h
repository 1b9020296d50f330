#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "synckit/api/blob_receipt.h"
#include "synckit/api/brain.h"
#include "synckit/api/changes_response.h"
#include "synckit/api/delete_result.h"
#include "synckit/api/device.h"
#include "synckit/api/downloaded_file.h"
#include "synckit/api/http_transport.h"
#include "synckit/api/sync_api_error.h"
#include "synckit/api/token_providing.h"
#include "synckit/api/url_builder.h"
#include "synckit/api/write_result.h"
#include "synckit/base/bytes.h"
#include "synckit/base/uuid.h"

namespace synckit {

// The only component that talks to the sync service: each operation is one
// authenticated request whose answer is decoded into the wire types. It never
// retries or refreshes tokens; every failure reaches the caller as
// SyncAPIError (non-2xx), SyncClientError, DecodingError, TransportError,
// CancellationError or whatever the token provider throws.
//
// Brain ids are passed as Uuid and sent in paths as lower-case text.
//
// Holds no mutable state: any thread may call any operation, several at
// once. The transport and token provider must be safe for that too.
class SyncAPIClient {
 public:
  // How long one request may take before the transport gives up on it.
  static constexpr std::chrono::milliseconds defaultRequestTimeout{60000};

  // Shares ownership of the transport and the token provider.
  SyncAPIClient(std::string baseURL, std::shared_ptr<HTTPTransport> transport,
                std::shared_ptr<TokenProviding> tokens,
                std::chrono::milliseconds requestTimeout = defaultRequestTimeout);
  // Borrows them; both must outlive the client.
  SyncAPIClient(std::string baseURL, HTTPTransport& transport, TokenProviding& tokens,
                std::chrono::milliseconds requestTimeout = defaultRequestTimeout);

  const std::string& baseURL() const noexcept { return baseURL_; }

  Device registerDevice(const std::string& name, const std::string& platform) const;
  std::vector<Device> listDevices() const;
  std::vector<Brain> listBrains() const;
  ChangesResponse fetchChanges(const Uuid& brainId, const std::optional<std::string>& cursor,
                               const std::string& deviceId) const;
  // `at` is the caller's opaque version text, passed through unchanged.
  DownloadedFile readFile(const Uuid& brainId, const std::string& path,
                          const std::string& at) const;
  WriteResult putText(const Uuid& brainId, const std::string& deviceId, const std::string& path,
                      const std::optional<std::string>& title, const std::string& body) const;
  WriteResult putBlobFile(const Uuid& brainId, const std::string& deviceId, const std::string& path,
                          const std::optional<std::string>& title, const std::string& blobHash,
                          std::int64_t blobSize) const;
  WriteResult move(const Uuid& brainId, const std::string& deviceId, const std::string& fromPath,
                   const std::string& toPath) const;
  DeleteResult deleteFile(const Uuid& brainId, const std::string& deviceId,
                          const std::string& path) const;
  BlobReceipt uploadBlob(const Uuid& brainId, const std::string& deviceId, Bytes data) const;

  // The error for an answer outside 200-299: the server's error envelope when
  // the body holds one, otherwise code "unknown" and "HTTP {status}: {text}"
  // (or "HTTP {status}" for an empty body).
  static SyncAPIError makeAPIError(int status, const Bytes& body);

 private:
  struct Endpoint {
    std::string method;
    std::vector<std::string> segments;
    QueryItems query;
    std::string accept = "application/json";
    std::optional<std::string> contentType;
  };

  // Builds the URL, asks for the token, sends and checks the status; the
  // answer has a 2xx status.
  HTTPResponse send(const Endpoint& endpoint, Bytes body) const;
  WriteResult sendJSON(const std::string& method, const Uuid& brainId, const std::string& segment,
                       std::string body) const;
  static std::vector<std::string> brainSegments(const Uuid& brainId, std::string_view last);

  const std::string baseURL_;
  const std::shared_ptr<HTTPTransport> transport_;
  const std::shared_ptr<TokenProviding> tokens_;
  const std::chrono::milliseconds requestTimeout_;
};

}  // namespace synckit
