// bench/save_latency.sh's measurement: the application's side (store, token
// manager, domain controller, sync scheduler and the Linux file-provider
// manager, which starts halvark-provider) runs in this process against a
// container that initial_sync_setup signed in. Each save rewrites one file
// of the mirror and is timed from the moment the save returns until the
// devserver holds the new content; before each save the loops are idle.
//
//   save_latency BASE_URL [SAVES]   # 20 by default
//
// Saves alternate between writing the file in place and writing a
// temporary file renamed over it, as editors do. Then, as a baseline, the
// same number of writes straight through the API. One line per save, a
// median per kind and of the baseline, `ratio=R` (saves over the baseline)
// and the last line `median_ms=M` over every save.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app/core/domain_controller.h"
#include "app/core/sync_scheduler.h"
#include "app/platform/linux_file_provider_manager.h"
#include "synckit/api/curl_transport.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/file_token_store.h"
#include "synckit/platform/provider_paths.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// The devserver's control interface, over one reused connection so that a
// poll costs a loopback round trip and no handshake.
class Control {
 public:
  explicit Control(std::string baseURL) : baseURL_(std::move(baseURL)) {}

  json get(const std::string& path) {
    synckit::HTTPRequest request;
    request.method = "GET";
    request.url = baseURL_ + "/_control" + path;
    const synckit::HTTPResponse response = transport_.send(request);
    if (response.status != 200) {
      throw std::runtime_error("GET " + path + ": HTTP " + std::to_string(response.status));
    }
    return json::parse(synckit::toString(response.body));
  }

  std::string headCursor(const synckit::Uuid& brain) {
    const json state = get("/state");
    for (const json& entry : state.at("brains")) {
      if (synckit::Uuid::parse(entry.at("id").get<std::string>()) == brain) {
        return entry.at("headCursor").get<std::string>();
      }
    }
    throw std::runtime_error("the server has no brain " + brain.toLowerString());
  }

  std::optional<std::string> content(const synckit::Uuid& brain, const std::string& path) {
    const json tree = get("/brains/" + brain.toLowerString() + "/tree");
    for (const json& node : tree.at("nodes")) {
      if (node.at("path") == path) return node.value("content", "");
    }
    return std::nullopt;
  }

 private:
  std::string baseURL_;
  synckit::CurlTransport transport_{{.acceptEncoding = "identity"}};
};

std::string readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool waitFor(const std::function<bool()>& condition, Clock::duration limit,
             Clock::duration step = 20ms) {
  const auto deadline = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(step);
  }
  return true;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: save_latency BASE_URL [SAVES]\n");
    return 2;
  }
  const std::string baseURL = argv[1];
  const int saves = argc == 3 ? std::stoi(argv[2]) : 20;

  auto store = synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
  synckit::CurlTransport transport;
  synckit::FileTokenStore tokenFile(synckit::AppGroup::tokenFileURL());
  synckit::TokenManager tokenManager(baseURL, transport, tokenFile, *store);
  tokenManager.restoreSession();
  synckit::SyncAPIClient api(baseURL, transport, tokenManager);
  halvark::LinuxFileProviderManager fileProvider;
  halvark::DomainController domainController(*store, api, tokenManager, fileProvider);
  halvark::SyncScheduler scheduler(*store, api, tokenManager, domainController, {});
  domainController.refreshBrains();
  const auto brains = store->brains();
  if (brains.size() != 1) throw std::runtime_error("expected the one brain of the set-up");
  const synckit::Uuid brain = brains.front().brainId;
  scheduler.start();
  domainController.activate();

  Control control(baseURL);
  const std::string path = "folder-000/note-00000.md";
  const fs::path file = synckit::ProviderPaths::mirrorFolder() / brains.front().name / path;
  const fs::path temporary = file.parent_path() / ".note-00000.md.tmp";
  const auto original = control.content(brain, path);
  if (!original || !waitFor([&] { return readAll(file) == *original; }, 60s)) {
    throw std::runtime_error("the mirror did not receive " + path);
  }

  std::vector<double> all, inPlace, renamed;
  for (int i = 0; i < saves; ++i) {
    // Idle: nothing waits in the journal, and the provider has had time to
    // take in the previous upload's echo from the store.
    if (!waitFor([&] { return store->pendingChanges(brain).empty(); }, 30s)) {
      throw std::runtime_error("a change is still waiting after 30 s");
    }
    std::this_thread::sleep_for(1s);
    const std::string before = control.headCursor(brain);
    const std::string content = "save " + std::to_string(i) + "\n" + *original;
    const bool rename = i % 2 == 1;
    if (rename) {
      std::ofstream(temporary, std::ios::binary) << content;
      fs::rename(temporary, file);
    } else {
      std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
    }
    const auto saved = Clock::now();
    if (!waitFor([&] { return control.headCursor(brain) != before; }, 30s, 1ms)) {
      throw std::runtime_error("save " + std::to_string(i) + " did not reach the server");
    }
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - saved).count();
    if (control.content(brain, path) != content) {
      throw std::runtime_error("the server's content after save " + std::to_string(i) +
                               " is not the saved one");
    }
    std::printf("save %2d (%s): %.1f ms\n", i, rename ? "renamed over" : "in place", ms);
    std::fflush(stdout);
    all.push_back(ms);
    (rename ? renamed : inPlace).push_back(ms);
  }

  // The baseline: the same content written straight through the API and
  // seen on the server the same way, so what remains of a save's time is
  // the provider's settling and journalling and the scheduler's wake-up.
  const std::string deviceId = store->metaValue(synckit::MetaKey::deviceId).value_or("");
  std::vector<double> direct;
  for (int i = 0; i < saves; ++i) {
    const std::string before = control.headCursor(brain);
    const auto sent = Clock::now();
    api.putText(brain, deviceId, "folder-000/direct.md", std::nullopt,
                "direct " + std::to_string(i) + "\n" + *original);
    if (!waitFor([&] { return control.headCursor(brain) != before; }, 30s, 1ms)) {
      throw std::runtime_error("a direct write did not reach the server");
    }
    direct.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
  }

  if (!inPlace.empty()) std::printf("in place: median %.1f ms\n", median(inPlace));
  if (!renamed.empty()) std::printf("renamed over: median %.1f ms\n", median(renamed));
  std::printf("written straight through the API (baseline): median %.1f ms\n", median(direct));
  std::printf("ratio=%.1f\n", median(all) / median(direct));
  std::printf("median_ms=%.0f\n", median(all));
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "save_latency: %s\n", error.what());
  return 1;
}
