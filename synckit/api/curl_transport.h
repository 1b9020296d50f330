#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "synckit/api/http_transport.h"
#include "synckit/platform/sync_kit.h"

namespace synckit {

// The production HTTPTransport, on libcurl. It keeps no cookies, cache or
// stored credentials (.netrc is ignored), always verifies the TLS peer and
// host, follows redirects, and reuses connections across requests. A transfer
// in flight ends promptly with CancellationError when the calling thread's
// ambient stop token is requested, and failures below HTTP become
// TransportError.
//
// Safe to use from several threads at once; each send runs on the calling
// thread. Destroy it only when no send is running.
class CurlTransport : public HTTPTransport {
 public:
  struct Options {
    // Idle connection sets kept for reuse; more concurrent requests than
    // this still run, their extra handles are closed afterwards.
    std::size_t maxIdleHandles = 8;
    std::string userAgent = "Halvark/" + std::string(SyncKit::version);
    // The Accept-Encoding offered; empty offers every encoding libcurl can
    // decode. Answers are decoded either way.
    std::string acceptEncoding;

    bool operator==(const Options&) const = default;
  };

  CurlTransport();
  explicit CurlTransport(Options options);
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  HTTPResponse send(const HTTPRequest& request) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace synckit
