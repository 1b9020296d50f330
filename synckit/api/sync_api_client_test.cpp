#include "synckit/api/sync_api_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "synckit/base/error.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::FakeHTTPTransport;
using testing::thrownBy;

const Uuid brainId = *Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const std::string brainPath =
    "https://sync.example/v1/api/sync/brains/e621e1f8-c36c-495a-93fc-0c247a3e6e5f";
constexpr const char* writeResultJSON = R"({"node":{"nodeId":"n1","path":"a.md"},"cursor":"c7"})";

class CountingTokens : public TokenProviding {
 public:
  std::string currentAccessToken() override {
    ++calls;
    if (fail) throw std::runtime_error("no session");
    return "tok-123";
  }
  std::atomic<int> calls{0};
  bool fail = false;
};

class SyncAPIClientTest : public ::testing::Test {
 protected:
  // Sends one call against a single canned answer and returns the request
  // it made.
  template <class F>
  HTTPRequest requestOf(HTTPResponse answer, F&& call) {
    transport.enqueue(std::move(answer));
    call();
    auto requests = transport.requests();
    EXPECT_FALSE(requests.empty());
    return requests.empty() ? HTTPRequest{} : requests.back();
  }

  FakeHTTPTransport transport;
  CountingTokens tokens;
  SyncAPIClient client{"https://sync.example/v1/", transport, tokens};
};

HTTPHeaders jsonHeaders(bool withBody) {
  HTTPHeaders headers = {{"Authorization", "Bearer tok-123"}, {"Accept", "application/json"}};
  if (withBody) headers.emplace_back("Content-Type", "application/json");
  return headers;
}

TEST_F(SyncAPIClientTest, EachEndpointSendsItsMethodURLHeadersAndBody) {
  Device device;
  auto request = requestOf(
      FakeHTTPTransport::json(201, R"({"device":{"id":"d1","name":"Box","platform":"linux",
                              "createdAt":"2025-03-01T09:30:12.345Z"}})"),
      [&] { device = client.registerDevice("Box", "linux"); });
  EXPECT_EQ(device.id, "d1");
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://sync.example/v1/api/sync/devices");
  EXPECT_EQ(request.headers, jsonHeaders(true));
  EXPECT_EQ(toString(request.body), R"({"name":"Box","platform":"linux"})");
  EXPECT_EQ(request.timeout, std::chrono::seconds(60));

  std::vector<Device> devices;
  request = requestOf(FakeHTTPTransport::json(200, R"({"devices":[]})"),
                      [&] { devices = client.listDevices(); });
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.url, "https://sync.example/v1/api/sync/devices");
  EXPECT_EQ(request.headers, jsonHeaders(false));
  EXPECT_TRUE(request.body.empty());

  std::vector<Brain> brains;
  request = requestOf(
      FakeHTTPTransport::json(200, R"({"brains":[{"id":"B","teamId":"t","name":"n","slug":"s"}]})"),
      [&] { brains = client.listBrains(); });
  EXPECT_EQ(request.url, "https://sync.example/v1/api/sync/brains");
  EXPECT_EQ(brains, (std::vector<Brain>{{"B", "t", "n", "s", std::nullopt}}));

  WriteResult written;
  request = requestOf(FakeHTTPTransport::json(200, writeResultJSON), [&] {
    written = client.putText(brainId, "dev", "notes/a b.md", std::nullopt, "hi");
  });
  EXPECT_EQ(written, (WriteResult{{"n1", "a.md"}, "c7"}));
  EXPECT_EQ(request.method, "PUT");
  EXPECT_EQ(request.url, brainPath + "/file");
  EXPECT_EQ(toString(request.body), R"({"body":"hi","deviceId":"dev","path":"notes/a b.md"})");

  request = requestOf(FakeHTTPTransport::json(200, writeResultJSON),
                      [&] { client.putBlobFile(brainId, "dev", "x.png", "X", "abc", 5); });
  EXPECT_EQ(toString(request.body),
            R"({"blobHash":"abc","blobSize":5,"deviceId":"dev","path":"x.png","title":"X"})");

  request = requestOf(FakeHTTPTransport::json(200, writeResultJSON),
                      [&] { client.move(brainId, "dev", "a", "b"); });
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, brainPath + "/move");
  EXPECT_EQ(toString(request.body), R"({"deviceId":"dev","fromPath":"a","toPath":"b"})");

  DeleteResult deleted;
  request = requestOf(FakeHTTPTransport::json(200, R"({"deleted":true,"cursor":"c8"})"),
                      [&] { deleted = client.deleteFile(brainId, "dev", "a"); });
  EXPECT_EQ(deleted, (DeleteResult{true, "c8"}));
  EXPECT_EQ(request.method, "DELETE");
  EXPECT_EQ(request.url, brainPath + "/file");
  EXPECT_EQ(toString(request.body), R"({"deviceId":"dev","path":"a"})");

  BlobReceipt receipt;
  Bytes data = {0, 1, 2, 0xFF};
  request = requestOf(FakeHTTPTransport::json(200, R"({"hash":"h","size":4})"),
                      [&] { receipt = client.uploadBlob(brainId, "dev/1", data); });
  EXPECT_EQ(receipt, (BlobReceipt{"h", 4}));
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, brainPath + "/blobs?deviceId=dev%2F1");
  EXPECT_EQ(request.headers, (HTTPHeaders{{"Authorization", "Bearer tok-123"},
                                          {"Accept", "application/json"},
                                          {"Content-Type", "application/octet-stream"}}));
  EXPECT_EQ(request.body, data);
}

TEST_F(SyncAPIClientTest, FetchChangesSendsTheCursorOnlyWhenGivenAndFirst) {
  auto request = requestOf(FakeHTTPTransport::json(200, R"({"reset":true,"snapshot":[]})"),
                           [&] { client.fetchChanges(brainId, std::nullopt, "dev 1"); });
  EXPECT_EQ(request.url, brainPath + "/changes?deviceId=dev%201");
  EXPECT_EQ(request.headers, jsonHeaders(false));

  ChangesResponse page = ChangesResponse::Reset{};
  request =
      requestOf(FakeHTTPTransport::json(200, R"({"reset":false,"cursor":"c/2","entries":[]})"),
                [&] { page = client.fetchChanges(brainId, "c/1#", "dev"); });
  EXPECT_EQ(request.url, brainPath + "/changes?cursor=c%2F1%23&deviceId=dev");
  EXPECT_EQ(page.kind(), ChangesResponse::Kind::incremental);
  EXPECT_EQ(page.cursor(), "c/2");

  // A malformed 2xx body is a decoding failure, not an API error.
  transport.enqueue(FakeHTTPTransport::json(200, R"({"cursor":"c"})"));
  EXPECT_THROW(client.fetchChanges(brainId, std::nullopt, "dev"), DecodingError);
}

TEST_F(SyncAPIClientTest, ReadFileDispatchesOnContentType) {
  auto request =
      requestOf(HTTPResponse{200,
                             {{"content-type", "Application/JSON; charset=utf-8"}},
                             toBytes(R"({"path":"a.md","at":"v1","content":"h\u00e9llo"})")},
                [&] {
                  EXPECT_EQ(client.readFile(brainId, "dir/a?.md", "v 1"),
                            DownloadedFile::text("h\xC3\xA9llo"));
                });
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.url, brainPath + "/file?path=dir%2Fa%3F.md&at=v%201");
  EXPECT_EQ(request.header("Accept"), "application/json, application/octet-stream");
  EXPECT_EQ(request.header("Content-Type"), std::nullopt);

  transport.enqueue(
      HTTPResponse{200, {{"Content-Type", "application/octet-stream"}}, Bytes{0, 0xFE}});
  EXPECT_EQ(client.readFile(brainId, "x.bin", "v"), DownloadedFile::blob(Bytes{0, 0xFE}));

  // The envelope's "at" is required even though only the content is used.
  transport.enqueue(HTTPResponse{
      200, {{"Content-Type", "application/json"}}, toBytes(R"({"path":"a","content":"x"})")});
  EXPECT_THROW(client.readFile(brainId, "a", "v"), DecodingError);

  auto refusal = [&](HTTPHeaders headers) {
    transport.enqueue(HTTPResponse{200, std::move(headers), toBytes("hello")});
    return thrownBy<SyncClientError>([&] { client.readFile(brainId, "a", "v"); });
  };
  auto plain = refusal({{"Content-Type", "text/plain"}});
  EXPECT_EQ(plain.kind(), SyncClientError::Kind::unexpectedContentType);
  EXPECT_EQ(plain.payload(), "text/plain");
  EXPECT_EQ(plain.description(), "Unexpected response Content-Type: text/plain");
  EXPECT_EQ(refusal({}).description(), "Unexpected response Content-Type: none");
}

TEST_F(SyncAPIClientTest, StatusOutside2xxBecomesAnAPIError) {
  for (int status : {200, 201, 299}) {
    transport.enqueue(FakeHTTPTransport::json(status, R"({"brains":[]})"));
    EXPECT_NO_THROW(client.listBrains()) << status;
  }
  for (int status : {199, 300, 401, 404}) {
    transport.enqueue(FakeHTTPTransport::json(status, R"({"brains":[]})"));
    EXPECT_EQ(
        thrownBy<SyncAPIError>([&] { client.listBrains(); }),
        SyncAPIError(status, "unknown", "HTTP " + std::to_string(status) + R"(: {"brains":[]})"));
  }

  transport.enqueue(
      FakeHTTPTransport::json(404, R"({"error":{"code":"NOT_FOUND","message":"x"}})"));
  auto notFound = thrownBy<SyncAPIError>([&] { client.move(brainId, "dev", "a", "b"); });
  EXPECT_EQ(notFound, SyncAPIError(404, "NOT_FOUND", "x"));
  EXPECT_EQ(notFound.description(), "Sync API error 404 NOT_FOUND: x");
}

TEST(SyncAPIErrorTest, MakeAPIErrorFallsBackToTheBodyText) {
  EXPECT_EQ(SyncAPIClient::makeAPIError(500, {}), SyncAPIError(500, "unknown", "HTTP 500"));
  EXPECT_EQ(SyncAPIClient::makeAPIError(500, toBytes("oops")),
            SyncAPIError(500, "unknown", "HTTP 500: oops"));
  EXPECT_EQ(SyncAPIClient::makeAPIError(500, toBytes(R"({"n":1e310})")),
            SyncAPIError(500, "unknown", R"(HTTP 500: {"n":1e310})"));
  EXPECT_EQ(SyncAPIClient::makeAPIError(502, toBytes(R"({"error":"bad gateway"})")),
            SyncAPIError(502, "unknown", R"(HTTP 502: {"error":"bad gateway"})"));
  EXPECT_EQ(SyncAPIClient::makeAPIError(500, Bytes{'a', 0xFF, 'b'}),
            SyncAPIError(500, "unknown",
                         "HTTP 500: a\xEF\xBF\xBD"
                         "b"));
  auto conflict = SyncAPIClient::makeAPIError(
      409, toBytes(R"({"error":{"code":"CONFLICT","message":"m"},"x":1})"));
  EXPECT_TRUE(conflict.isConflict());
  EXPECT_TRUE(SyncAPIError(403, "FORBIDDEN_SUBTREE", "").isForbiddenSubtree());
  EXPECT_FALSE(SyncAPIError(403, "forbidden", "").isForbidden());
}

TEST_F(SyncAPIClientTest, NoRequestWithoutAToken) {
  tokens.fail = true;
  EXPECT_THROW(client.listBrains(), std::runtime_error);
  EXPECT_THROW(client.uploadBlob(brainId, "dev", Bytes{1}), std::runtime_error);
  EXPECT_EQ(transport.requestCount(), 0u);

  // A base that is not a URL fails before the token is even asked for.
  tokens.fail = false;
  tokens.calls = 0;
  SyncAPIClient broken("not a url", transport, tokens);
  EXPECT_THROW(broken.listBrains(), SyncClientError);
  EXPECT_EQ(tokens.calls, 0);
  EXPECT_EQ(transport.requestCount(), 0u);
}

TEST(SyncAPIClientOwnershipTest, SharedConstructorKeepsCollaboratorsAlive) {
  auto transport = std::make_shared<FakeHTTPTransport>();
  std::weak_ptr<FakeHTTPTransport> watch = transport;
  SyncAPIClient client("https://h", transport, std::make_shared<StaticTokenProvider>("t"));
  transport->enqueue(FakeHTTPTransport::json(200, R"({"devices":[]})"));
  transport.reset();
  EXPECT_FALSE(watch.expired());
  EXPECT_TRUE(client.listDevices().empty());
}

}  // namespace
}  // namespace synckit
