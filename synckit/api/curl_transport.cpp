#include "synckit/api/curl_transport.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <stop_token>
#include <vector>

#include "synckit/api/sync_api_error.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"

namespace synckit {
namespace {

// How long one wait for socket activity may last before the loop looks at
// the stop token again; a stop also wakes the wait at once.
constexpr int pollIntervalMs = 1000;

struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MultiDeleter {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct ShareDeleter {
  void operator()(CURLSH* share) const { curl_share_cleanup(share); }
};
struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using MultiHandle = std::unique_ptr<CURLM, MultiDeleter>;
using ShareHandle = std::unique_ptr<CURLSH, ShareDeleter>;
using HeaderList = std::unique_ptr<curl_slist, SlistDeleter>;

void initialiseCurlOnce() {
  static std::once_flag once;
  static CURLcode result = CURLE_OK;
  std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
  if (result != CURLE_OK) {
    throw TransportError(TransportError::Kind::other,
                         std::string("libcurl: ") + curl_easy_strerror(result));
  }
}

TransportError::Kind kindOf(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return TransportError::Kind::timedOut;
    case CURLE_COULDNT_CONNECT:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return TransportError::Kind::cannotConnect;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return TransportError::Kind::connectionLost;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_USE_SSL_FAILED:
      return TransportError::Kind::secureConnectionFailed;
    default:
      return TransportError::Kind::other;
  }
}

// The state one transfer's callbacks write into.
struct Transfer {
  HTTPResponse response;
};

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

// Called once per header line of every response of the exchange (interim
// 1xx answers and followed redirects included), so each status line starts
// the header set afresh: the caller sees the final response's headers only.
size_t onHeader(char* data, size_t size, size_t count, void* context) noexcept {
  auto* transfer = static_cast<Transfer*>(context);
  std::string_view line(data, size * count);
  try {
    if (line.starts_with("HTTP/")) {
      transfer->response.headers.clear();
      transfer->response.body.clear();
    } else if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
      // An obsolete folded continuation of the previous header's value.
      if (!transfer->response.headers.empty()) {
        auto& value = transfer->response.headers.back().second;
        value += ' ';
        value += trim(line);
      }
    } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
      transfer->response.headers.emplace_back(std::string(trim(line.substr(0, colon))),
                                              std::string(trim(line.substr(colon + 1))));
    }
  } catch (...) {
    return 0;  // ends the transfer with a write error instead of unwinding through C
  }
  return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* context) noexcept {
  auto* transfer = static_cast<Transfer*>(context);
  try {
    transfer->response.body.insert(transfer->response.body.end(), data, data + size * count);
  } catch (...) {
    return 0;
  }
  return size * count;
}

bool hasHeader(const HTTPRequest& request, std::string_view name) {
  return request.header(name).has_value();
}

}  // namespace

// One easy handle with its own multi handle. The multi keeps the connection
// cache, so a slot taken from the pool reuses the connections of the
// transfers it ran before; each slot is used by one thread at a time.
struct CurlSlot {
  EasyHandle easy;
  MultiHandle multi;
};

struct CurlTransport::Impl {
  explicit Impl(Options opts) : options(std::move(opts)) {
    initialiseCurlOnce();
    share.reset(curl_share_init());
    if (!share)
      throw TransportError(TransportError::Kind::other, "libcurl could not create a share handle");
    // DNS answers and TLS sessions are shared between the slots; curl
    // calls these to serialise access to each kind of shared data.
    curl_share_setopt(share.get(), CURLSHOPT_LOCKFUNC, &Impl::lockShare);
    curl_share_setopt(share.get(), CURLSHOPT_UNLOCKFUNC, &Impl::unlockShare);
    curl_share_setopt(share.get(), CURLSHOPT_USERDATA, this);
    curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }

  ~Impl() {
    idle.clear();  // every easy handle must be gone before the share
  }

  static void lockShare(CURL*, curl_lock_data data, curl_lock_access, void* context) {
    static_cast<Impl*>(context)
        ->shareLocks[static_cast<std::size_t>(data) % CURL_LOCK_DATA_LAST]
        .lock();
  }
  static void unlockShare(CURL*, curl_lock_data data, void* context) {
    static_cast<Impl*>(context)
        ->shareLocks[static_cast<std::size_t>(data) % CURL_LOCK_DATA_LAST]
        .unlock();
  }

  std::unique_ptr<CurlSlot> acquire() {
    {
      std::lock_guard lock(poolMutex);
      if (!idle.empty()) {
        auto slot = std::move(idle.back());
        idle.pop_back();
        return slot;
      }
    }
    auto slot = std::make_unique<CurlSlot>();
    slot->easy.reset(curl_easy_init());
    slot->multi.reset(curl_multi_init());
    if (!slot->easy || !slot->multi) {
      throw TransportError(TransportError::Kind::other,
                           "libcurl could not create a transfer handle");
    }
    return slot;
  }

  // Runs from a destructor, so it must not throw; a slot that cannot be
  // kept is simply closed.
  void release(std::unique_ptr<CurlSlot> slot) noexcept {
    std::lock_guard lock(poolMutex);
    if (idle.size() >= options.maxIdleHandles) return;
    try {
      idle.push_back(std::move(slot));
    } catch (...) {
    }
  }

  const Options options;
  std::array<std::mutex, CURL_LOCK_DATA_LAST> shareLocks;
  ShareHandle share;
  std::mutex poolMutex;
  std::vector<std::unique_ptr<CurlSlot>> idle;  // guarded by poolMutex
};

CurlTransport::CurlTransport() : CurlTransport(Options{}) {}

CurlTransport::CurlTransport(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

CurlTransport::~CurlTransport() = default;

HTTPResponse CurlTransport::send(const HTTPRequest& request) {
  checkCancellation();

  // Returns the slot to the pool however the transfer ends; declared first
  // so that it runs after the handle has left the multi.
  struct SlotLease {
    Impl& impl;
    std::unique_ptr<CurlSlot> slot;
    ~SlotLease() { impl.release(std::move(slot)); }
  } lease{*impl_, impl_->acquire()};
  CURL* easy = lease.slot->easy.get();
  CURLM* multi = lease.slot->multi.get();

  curl_easy_reset(easy);
  Transfer transfer;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  HeaderList headers;
  auto appendHeader = [&](const std::string& line) {
    curl_slist* list = curl_slist_append(headers.get(), line.c_str());
    if (!list) throw std::bad_alloc();
    headers.release();
    headers.reset(list);
  };
  for (const auto& [name, value] : request.headers) {
    // "Name;" is curl's spelling of a header with an empty value.
    appendHeader(value.empty() ? name + ";" : name + ": " + value);
  }
  appendHeader("Expect:");  // no 100-continue round trip before bodies

  const bool sendsBody = !request.body.empty() || request.method == "POST" ||
                         request.method == "PUT" || request.method == "PATCH";
  if (sendsBody && !hasHeader(request, "Content-Type")) {
    appendHeader("Content-Type:");  // curl would otherwise claim a form body
  }

  const long timeoutMs =
      static_cast<long>(std::max<std::chrono::milliseconds::rep>(1, request.timeout.count()));

  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_SHARE, impl_->share.get());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(easy, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, impl_->options.acceptEncoding.c_str());
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMs);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, impl_->options.userAgent.c_str());
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);

  if (request.method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (sendsBody) {
    static const char empty[] = "";
    const char* data =
        request.body.empty() ? empty : reinterpret_cast<const char*>(request.body.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, data);
    if (request.method != "POST")
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    if (request.method != "GET")
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  if (CURLMcode added = curl_multi_add_handle(multi, easy); added != CURLM_OK) {
    throw TransportError(TransportError::Kind::other, curl_multi_strerror(added));
  }
  // Leaving the multi mid-transfer also closes the connection, which is what
  // aborts a cancelled exchange.
  struct Attachment {
    CURLM* multi;
    CURL* easy;
    ~Attachment() { curl_multi_remove_handle(multi, easy); }
  } attachment{multi, easy};

  std::stop_token stop = currentStopToken();
  std::stop_callback wakeOnStop(stop, [multi] { curl_multi_wakeup(multi); });

  CURLcode result = CURLE_OK;
  bool finished = false;
  while (!finished) {
    if (stop.stop_requested()) throw CancellationError();
    int running = 0;
    if (CURLMcode code = curl_multi_perform(multi, &running); code != CURLM_OK) {
      throw TransportError(TransportError::Kind::other, curl_multi_strerror(code));
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
        result = message->data.result;
        finished = true;
      }
    }
    if (finished || running == 0) break;
    if (CURLMcode code = curl_multi_poll(multi, nullptr, 0, pollIntervalMs, nullptr);
        code != CURLM_OK) {
      throw TransportError(TransportError::Kind::other, curl_multi_strerror(code));
    }
  }
  // A stop that arrives after the exchange completed does not hide its
  // answer: the server has acted on it, and the caller must learn how.

  if (result != CURLE_OK) {
    std::string detail = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(result);
    throw TransportError(kindOf(result), std::move(detail));
  }
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  if (status == 0) throw SyncClientError::nonHTTPResponse();
  transfer.response.status = static_cast<int>(status);
  return std::move(transfer.response);
}

}  // namespace synckit
