#include "synckit/engine/content_uploader.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "synckit/engine/upload_plan_error.h"
#include "synckit/engine/upload_planner.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using testing::FakeHTTPTransport;

constexpr const char* base = "https://sync.example.test";
const Uuid brainId = *Uuid::parse("6F1D3C2B-8A4E-4F10-9B7C-1E2D3F4A5B6C");
const std::string brainURL =
    std::string(base) + "/api/sync/brains/6f1d3c2b-8a4e-4f10-9b7c-1e2d3f4a5b6c";
const std::string fileURL = brainURL + "/file";
const std::string discoveryURL = std::string(base) + "/.well-known/oauth-authorization-server";
const std::string tokenURL = "https://auth.example.test/token";

// A signed-in session whose API answers come from `api`; the first answer of
// `rejectOnce` (a URL) is a 401 and the token endpoint issues "fresh".
class ContentUploaderTest : public ::testing::Test {
 protected:
  ContentUploaderTest() {
    transport.setHandler([this](const HTTPRequest& request) {
      if (request.url == discoveryURL)
        return FakeHTTPTransport::json(200, R"({"issuer":"https://auth.example.test",
          "authorization_endpoint":"https://auth.example.test/authorize",
          "token_endpoint":"https://auth.example.test/token",
          "registration_endpoint":"https://auth.example.test/register"})");
      if (request.url == tokenURL)
        return FakeHTTPTransport::json(200, R"({"access_token":"fresh","token_type":"Bearer",
          "expires_in":60,"refresh_token":"r2","scope":"readwrite"})");
      if (request.url == rejectOnce) {
        rejectOnce.clear();
        return FakeHTTPTransport::json(401, R"({"error":{"code":"UNAUTHORIZED","message":"no"}})");
      }
      if (request.url == fileURL)
        return FakeHTTPTransport::json(200,
                                       R"({"node":{"nodeId":"n1","path":"a/b.md"},"cursor":"c7"})");
      if (request.url == brainURL + "/blobs?deviceId=dev")
        return FakeHTTPTransport::json(200, R"({"hash":"receipt-hash","size":3})");
      return HTTPResponse{404, {}, {}};
    });
    manager.restoreSession();
  }

  // "METHOD url" per request, with the bearer token it carried.
  std::vector<std::string> exchanges() const {
    std::vector<std::string> lines;
    for (const HTTPRequest& request : transport.requests()) {
      std::string line = request.method + " " + request.url;
      if (auto auth = request.header("Authorization")) line += " " + *auth;
      lines.push_back(line);
    }
    return lines;
  }

  nlohmann::json bodyOf(std::size_t index) const {
    return nlohmann::json::parse(toString(transport.requests().at(index).body));
  }

  UploadedContent send(const ContentUploadPlan& plan) {
    return ContentUploader::send(plan, brainId, "a/b.md", "dev", api, manager);
  }

  FakeHTTPTransport transport;
  testing::InMemoryTokenStore store{TokenSet{"a1", "r1"}};
  TokenManager manager{base, transport, store, [] { return std::string("client-1"); }};
  SyncAPIClient api{base, transport, manager};
  std::string rejectOnce;
  const WriteResult written{NodeRef{"n1", "a/b.md"}, "c7"};
};

TEST_F(ContentUploaderTest, BlobNamesTheReceiptsHashAndRetriesOnlyTheRejectedRequest) {
  const Bytes data{0x00, 0x01, 0x02};
  rejectOnce = fileURL;
  EXPECT_EQ(send(ContentUploadPlan::Blob{data, "planned-hash", 3}),
            (UploadedContent{written, NodeKind::blob, "receipt-hash", 3}));
  EXPECT_EQ(exchanges(),
            (std::vector<std::string>{"POST " + brainURL + "/blobs?deviceId=dev Bearer a1",
                                      "PUT " + fileURL + " Bearer a1", "GET " + discoveryURL,
                                      "POST " + tokenURL, "PUT " + fileURL + " Bearer fresh"}));
  EXPECT_EQ(transport.requests()[0].body, data);
  EXPECT_EQ(bodyOf(4), nlohmann::json::parse(R"({"deviceId":"dev","path":"a/b.md",
                                                 "blobHash":"receipt-hash","blobSize":3})"));

  // Text is one write of the body.
  EXPECT_EQ(send(ContentUploadPlan::Text{"# hello"}),
            (UploadedContent{written, NodeKind::text, std::nullopt, std::nullopt}));
  EXPECT_EQ(exchanges().back(), "PUT " + fileURL + " Bearer fresh");
  EXPECT_EQ(exchanges().size(), 6u);
  EXPECT_EQ(bodyOf(5),
            nlohmann::json::parse(R"({"deviceId":"dev","path":"a/b.md","body":"# hello"})"));
}

TEST_F(ContentUploaderTest, TooLargeSendsNothingAndServerErrorsPropagate) {
  auto error = testing::thrownBy<UploadPlanError>(
      [&] { send(ContentUploadPlan::TooLarge{UploadPlanner::maxUploadBytes + 1}); });
  EXPECT_EQ(error, UploadPlanError::tooLarge(104857601));
  EXPECT_EQ(transport.requestCount(), 0u);

  transport.setHandler([](const HTTPRequest&) {
    return FakeHTTPTransport::json(422, R"({"error":{"code":"INVALID_PATH","message":"bad"}})");
  });
  auto refused = testing::thrownBy<SyncAPIError>([&] { send(ContentUploadPlan::Text{"x"}); });
  EXPECT_EQ(refused.status(), 422);
  EXPECT_EQ(transport.requestCount(), 1u);
}

}  // namespace
}  // namespace synckit
