#include "synckit/api/curl_transport.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/testing/loopback_http_server.h"
#include "synckit/testing/thrown_by.h"

namespace synckit {
namespace {

using namespace std::chrono_literals;
using testing::LoopbackHTTPServer;
using Clock = std::chrono::steady_clock;

std::string echoOf(const httplib::Request& req) {
  std::string out = req.method + "|" + req.get_header_value("X-Token") + "|";
  out += req.has_header("Content-Type") ? req.get_header_value("Content-Type") : "<none>";
  out += "|" + std::string(req.has_header("Expect") ? "expect" : "") + "|" + req.body;
  return out;
}

TransportError transportErrorOf(CurlTransport& transport, const HTTPRequest& request) {
  return testing::thrownBy<TransportError>([&] { transport.send(request); });
}

// The error a fresh transport meets when it asks `url`.
TransportError transportErrorAt(const std::string& url) {
  CurlTransport transport;
  HTTPRequest request;
  request.url = url;
  return transportErrorOf(transport, request);
}

class CurlTransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& s = server.server();
    s.Get("/echo", [](const httplib::Request& req, httplib::Response& res) {
      res.set_header("X-Reply", "one");
      res.set_header("Set-Cookie", "session=abc");
      res.set_content(echoOf(req), "text/plain");
    });
    auto created = [](const httplib::Request& req, httplib::Response& res) {
      res.status = 201;
      res.set_content(echoOf(req), "application/octet-stream");
    };
    s.Post("/echo", created);
    s.Put("/echo", created);
    s.Patch("/echo", created);
    s.Delete("/echo", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(echoOf(req), "text/plain");
    });
    s.Get("/status/(\\d+)", [](const httplib::Request& req, httplib::Response& res) {
      res.status = std::stoi(req.matches[1]);
      // 204 and 304 answers have no body by definition.
      if (res.status != 204 && res.status != 304) {
        res.set_content("status " + std::string(req.matches[1]), "text/plain");
      }
    });
    s.Get("/redirect", [](const httplib::Request&, httplib::Response& res) {
      res.set_header("X-Hop", "first");
      res.set_redirect("/echo");
    });
    s.Get("/encoding", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.get_header_value("Accept-Encoding") + std::string(512, ' '),
                      "text/plain");
    });
    s.Get("/cookie", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.has_header("Cookie") ? "cookie" : "none", "text/plain");
    });
    s.Get("/port", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(std::to_string(req.remote_port) + "|" + req.get_param_value("id"),
                      "text/plain");
    });
    s.Get("/slow", [this](const httplib::Request&, httplib::Response& res) {
      ++slowRequests;
      server.holdFor(30s);
      res.set_content("late", "text/plain");
    });
    server.start();
  }

  HTTPRequest get(const std::string& path) {
    HTTPRequest request;
    request.url = server.url(path);
    return request;
  }

  std::atomic<int> slowRequests{0};
  LoopbackHTTPServer server;
  CurlTransport transport;
};

TEST_F(CurlTransportTest, SendsMethodsHeadersAndBodiesAndReturnsTheAnswer) {
  auto request = get("/echo");
  request.headers = {{"X-Token", "abc"}, {"Accept", "text/plain"}};
  auto response = transport.send(request);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(toString(response.body), "GET|abc|<none>||");
  EXPECT_EQ(response.header("x-reply"), "one");
  EXPECT_EQ(response.header("Content-Type"), "text/plain");

  const Bytes binary = {'a', 0, 0xFF, '\n', 'z'};
  for (std::string method : {"POST", "PUT", "PATCH"}) {
    HTTPRequest write = get("/echo");
    write.method = method;
    write.headers = {{"X-Token", "t"}, {"Content-Type", "application/octet-stream"}};
    write.body = binary;
    response = transport.send(write);
    EXPECT_EQ(response.status, 201) << method;
    Bytes expected = toBytes(method + "|t|application/octet-stream||");
    expected.insert(expected.end(), binary.begin(), binary.end());
    EXPECT_EQ(response.body, expected) << method;
  }

  // A body without a declared type goes out without one; a large body is
  // sent without waiting for 100-continue.
  HTTPRequest untyped = get("/echo");
  untyped.method = "POST";
  untyped.body = Bytes(2 << 20, 'x');
  response = transport.send(untyped);
  EXPECT_EQ(toString(response.body), "POST||<none>||" + std::string(2 << 20, 'x'));

  HTTPRequest removal = get("/echo");
  removal.method = "DELETE";
  removal.headers = {{"Content-Type", "application/json"}};
  removal.body = toBytes(R"({"path":"a"})");
  EXPECT_EQ(toString(transport.send(removal).body), R"(DELETE||application/json||{"path":"a"})");
}

TEST_F(CurlTransportTest, OffersTheEncodingsItIsToldAndDecodesTheAnswer) {
  const std::string every = toString(transport.send(get("/encoding")).body);
  EXPECT_NE(every.find("gzip"), std::string::npos);
  CurlTransport::Options options;
  options.acceptEncoding = "gzip";
  CurlTransport gzipOnly(options);
  EXPECT_EQ(toString(gzipOnly.send(get("/encoding")).body), "gzip" + std::string(512, ' '));
}

TEST_F(CurlTransportTest, ReturnsEveryStatusAndTheFinalResponseOfARedirect) {
  for (int status : {201, 204, 304, 401, 404, 409, 500, 503}) {
    SCOPED_TRACE(status);
    auto response = transport.send(get("/status/" + std::to_string(status)));
    EXPECT_EQ(response.status, status);
    if (status != 204 && status != 304) {
      EXPECT_EQ(toString(response.body), "status " + std::to_string(status));
    }
  }

  auto response = transport.send(get("/redirect"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(toString(response.body), "GET||<none>||");
  EXPECT_EQ(response.header("X-Hop"), std::nullopt);
  EXPECT_EQ(response.header("X-Reply"), "one");

  // Cookies the server sets are never sent back.
  transport.send(get("/echo"));
  EXPECT_EQ(toString(transport.send(get("/cookie")).body), "none");
}

TEST_F(CurlTransportTest, ReusesConnectionsAcrossRequests) {
  std::set<std::string> ports;
  for (int i = 0; i < 5; ++i) {
    auto body = toString(transport.send(get("/port?id=x")).body);
    ports.insert(body.substr(0, body.find('|')));
  }
  EXPECT_EQ(ports.size(), 1u);
}

TEST_F(CurlTransportTest, TimesOutAfterTheRequestTimeout) {
  auto request = get("/slow");
  request.timeout = 300ms;
  auto started = Clock::now();
  auto error = transportErrorOf(transport, request);
  EXPECT_EQ(error.kind(), TransportError::Kind::timedOut);
  EXPECT_THAT(error.description(), ::testing::StartsWith("The request timed out."));
  EXPECT_LT(Clock::now() - started, 5s);
}

TEST_F(CurlTransportTest, StopRequestAbortsATransferInFlight) {
  std::promise<std::exception_ptr> outcome;
  auto started = Clock::now();
  std::jthread worker([&](std::stop_token stop) {
    CancellationScope scope(stop);
    try {
      transport.send(get("/slow"));
      outcome.set_value(nullptr);
    } catch (...) {
      outcome.set_value(std::current_exception());
    }
  });
  while (slowRequests == 0 && Clock::now() - started < 5s) std::this_thread::sleep_for(5ms);
  ASSERT_EQ(slowRequests, 1);
  worker.request_stop();
  auto future = outcome.get_future();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  EXPECT_THROW(std::rethrow_exception(future.get()), CancellationError);
  EXPECT_LT(Clock::now() - started, 5s);

  // A thread whose stop was requested before it starts sends nothing.
  std::stop_source stopped;
  stopped.request_stop();
  CancellationScope scope(stopped.get_token());
  EXPECT_THROW(transport.send(get("/slow")), CancellationError);
  EXPECT_EQ(slowRequests, 1);

  auto stopping = Clock::now();
  server.stop();
  EXPECT_LT(Clock::now() - stopping, 5s);
}

TEST_F(CurlTransportTest, ServesManyThreadsAtOnce) {
  constexpr int threads = 8, perThread = 15;
  std::atomic<int> mismatches{0}, failures{0};
  {
    std::vector<std::jthread> workers;
    for (int t = 0; t < threads; ++t) {
      workers.emplace_back([&, t] {
        for (int i = 0; i < perThread; ++i) {
          std::string id = std::to_string(t) + "-" + std::to_string(i);
          try {
            auto body = toString(transport.send(get("/port?id=" + id)).body);
            if (body.substr(body.find('|') + 1) != id) ++mismatches;
          } catch (const std::exception&) {
            ++failures;
          }
        }
      });
    }
  }
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(failures, 0);
}

TEST(CurlTransportFailureTest, RefusedConnectionCannotConnect) {
  int port;
  {
    LoopbackHTTPServer closed;
    closed.start();
    port = closed.port();
  }
  auto error = transportErrorAt("http://127.0.0.1:" + std::to_string(port) + "/");
  EXPECT_EQ(error.kind(), TransportError::Kind::cannotConnect);
  EXPECT_FALSE(error.detail().empty());
}

TEST(CurlTransportFailureTest, ConnectionClosedWithoutAnswerIsLost) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  std::jthread server([listener] {
    int connection = accept(listener, nullptr, nullptr);
    if (connection < 0) return;
    char buffer[1024];
    [[maybe_unused]] auto ignored = read(connection, buffer, sizeof buffer);
    close(connection);
  });

  EXPECT_EQ(
      transportErrorAt("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/").kind(),
      TransportError::Kind::connectionLost);
  server.join();
  close(listener);
}

// A certificate for 127.0.0.1 that nobody trusts.
struct SelfSignedIdentity {
  SelfSignedIdentity() : key(EVP_EC_gen("P-256")), cert(X509_new()) {
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509_sign(cert, key, EVP_sha256());
  }
  ~SelfSignedIdentity() {
    X509_free(cert);
    EVP_PKEY_free(key);
  }
  EVP_PKEY* key;
  X509* cert;
};

TEST(CurlTransportFailureTest, UntrustedCertificateIsRefused) {
  SelfSignedIdentity identity;
  ASSERT_NE(identity.key, nullptr);
  LoopbackHTTPServer server(std::make_unique<httplib::SSLServer>(identity.cert, identity.key),
                            "https");
  std::atomic<int> served{0};
  server.server().Get("/", [&](const httplib::Request&, httplib::Response& res) {
    ++served;
    res.set_content("secret", "text/plain");
  });
  server.start();

  EXPECT_EQ(transportErrorAt(server.url("/")).kind(), TransportError::Kind::secureConnectionFailed);
  EXPECT_EQ(served, 0);
}

}  // namespace
}  // namespace synckit
