#include "server/dev_server.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "server/control_routes.h"
#include "server/fault_injector.h"
#include "server/http_util.h"
#include "server/oauth_routes.h"
#include "server/seed.h"
#include "server/service_context.h"
#include "server/service_error.h"
#include "server/shared_state.h"
#include "server/sync_routes.h"

namespace devserver {
namespace {

// Each keep-alive connection holds a worker for its lifetime, and injected
// delays hold one too: the pool is sized well above the core count.
constexpr std::size_t kWorkerThreads = 32;

int portOf(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  }
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
  }
  return -1;
}

// The HTTP library does not hand its socket to handlers; the connection is
// found among the process's descriptors by its two ports and shut down, so the
// client sees the connection end without any answer.
bool dropConnection(const httplib::Request& req) {
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return false;
  bool dropped = false;
  while (dirent* entry = readdir(dir)) {
    char* end = nullptr;
    long fd = std::strtol(entry->d_name, &end, 10);
    if (*end != '\0' || fd == dirfd(dir)) continue;
    sockaddr_storage peer{};
    sockaddr_storage local{};
    socklen_t peerLength = sizeof peer;
    socklen_t localLength = sizeof local;
    int sock = static_cast<int>(fd);
    if (getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) continue;
    if (getsockname(sock, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) continue;
    if (portOf(peer) == req.remote_port &&
        (req.local_port <= 0 || portOf(local) == req.local_port)) {
      shutdown(sock, SHUT_RDWR);
      dropped = true;
      break;
    }
  }
  closedir(dir);
  return dropped;
}

}  // namespace

struct DevServer::Impl {
  Options options;
  SharedState state;
  FaultInjector faults;
  ServiceContext context;
  httplib::Server server;
  std::mutex threadMutex;
  std::thread thread;
  std::string baseURL;
  int port = 0;

  explicit Impl(Options opts)
      : options(std::move(opts)),
        state(options.members, options.tokenLifetimeSeconds, options.stateFile),
        context{state, faults, options.basePath, ""} {
    // The token lifetime follows the command line, also for a restored state.
    state.write([&](ServiceModel& model) {
      model.auth.setAccessTokenLifetime(options.tokenLifetimeSeconds);
    });
    if (options.seed) seedDemo(state);
    configure();
  }

  void configure() {
    server.new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
    server.set_keep_alive_max_count(100000);
    // Headers and body go out in separate writes; without this, Nagle's algorithm
    // and delayed ACKs cost tens of milliseconds per answer.
    server.set_tcp_nodelay(true);
    server.set_payload_max_length(static_cast<std::size_t>(BlobStore::kMaxBlobSize));
    const std::string controlPrefix = options.basePath + kControlPrefix;

    server.set_pre_routing_handler(
        [this, controlPrefix](const httplib::Request& req, httplib::Response& res) {
          if (req.path.rfind(controlPrefix, 0) == 0)
            return httplib::Server::HandlerResponse::Unhandled;
          auto fault = faults.take(req.method, req.path);
          if (!fault) return httplib::Server::HandlerResponse::Unhandled;
          // Sleeping here holds no lock: other requests go on meanwhile.
          if (fault->delayMillis > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMillis));
          }
          if (fault->drop) {
            dropConnection(req);
            res.status = 500;
            res.set_header("Connection", "close");
            return httplib::Server::HandlerResponse::Handled;
          }
          if (fault->status) {
            sendServiceError(res, ServiceError(*fault->status, fault->code, fault->message));
            return httplib::Server::HandlerResponse::Handled;
          }
          return httplib::Server::HandlerResponse::Unhandled;
        });

    // Answers the library produces by itself (no route, body too large) get the
    // same envelope as everything else.
    server.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request& req,
                                                                     httplib::Response& res) {
      if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
      std::string code = res.status == 404   ? "NOT_FOUND"
                         : res.status == 413 ? "PAYLOAD_TOO_LARGE"
                         : res.status == 400 ? "BAD_REQUEST"
                                             : "HTTP_" + std::to_string(res.status);
      std::string message = res.status == 404   ? "No such endpoint: " + req.method + " " + req.path
                            : res.status == 413 ? "The request body is too large."
                                                : "The request failed.";
      sendServiceError(res, ServiceError(res.status, code, message));
      return httplib::Server::HandlerResponse::Handled;
    }));

    server.set_exception_handler(
        [](const httplib::Request&, httplib::Response& res, std::exception_ptr error) {
          std::string message = "Internal error";
          try {
            if (error) std::rethrow_exception(error);
          } catch (const std::exception& e) {
            message = e.what();
          } catch (...) {
          }
          sendServiceError(res, ServiceError(500, "INTERNAL", message));
        });

    if (!options.quiet) {
      // Method, path and status only: queries and bodies may carry codes or tokens.
      server.set_logger([](const httplib::Request& req, const httplib::Response& res) {
        std::fprintf(stderr, "%s %s %d\n", req.method.c_str(), req.path.c_str(), res.status);
      });
    }

    addOAuthRoutes(server, context);
    addSyncRoutes(server, context);
    addControlRoutes(server, context);
  }
};

DevServer::DevServer(Options options) {
  // A client that goes away mid-answer must not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  impl_ = std::make_unique<Impl>(std::move(options));
}

DevServer::~DevServer() { stop(); }

std::string DevServer::start() {
  std::lock_guard lock(impl_->threadMutex);
  if (impl_->thread.joinable()) return impl_->baseURL;
  const std::string host = "127.0.0.1";
  int port = impl_->options.port;
  if (port == 0) {
    port = impl_->server.bind_to_any_port(host);
    if (port <= 0) throw std::runtime_error("Cannot bind a port on " + host);
  } else if (!impl_->server.bind_to_port(host, port)) {
    throw std::runtime_error("Cannot listen on " + host + ":" + std::to_string(port) +
                             " (is the port in use?)");
  }
  impl_->port = port;
  impl_->context.origin = "http://" + host + ":" + std::to_string(port);
  impl_->baseURL = impl_->context.issuer();
  impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
  // Until the accept loop runs, a stop() would be lost; wait for it.
  for (int i = 0; i < 5000 && !impl_->server.is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return impl_->baseURL;
}

void DevServer::stop() {
  impl_->server.stop();
  wait();
}

void DevServer::wait() {
  std::lock_guard lock(impl_->threadMutex);
  if (impl_->thread.joinable()) impl_->thread.join();
}

const std::string& DevServer::baseURL() const { return impl_->baseURL; }
int DevServer::port() const { return impl_->port; }
SharedState& DevServer::state() { return impl_->state; }

}  // namespace devserver
