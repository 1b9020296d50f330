// Prepares bench/initial_sync.sh's run: a devserver brain of many small text
// files (and the same files in a local folder, for the baseline), a signed-in
// container whose store already holds the brain's tree, and the shared
// defaults that point halvark-provider at the devserver. Nothing here is
// timed.
//
//   initial_sync_setup BASE_URL FILES_DIR [FOLDERS FILES_PER_FOLDER BYTES]
//
// The container and configuration locations come from the environment
// (HALVARK_CONTAINER, XDG_CONFIG_HOME, ...), as for the provider itself.

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app/core/domain_controller.h"
#include "app/core/sync_scheduler.h"
#include "synckit/api/curl_transport.h"
#include "synckit/api/sync_api_client.h"
#include "synckit/auth/oauth_client.h"
#include "synckit/auth/pkce.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/crypto.h"
#include "synckit/base/url.h"
#include "synckit/platform/app_group.h"
#include "synckit/platform/file_token_store.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// The application's side of the file provider is not part of the run: the
// provider is started by the script once everything is in the store.
class NoFileProvider : public halvark::FileProviderManager {
 public:
  void addDomain(const halvark::FileProviderDomain&) override {}
  void removeDomain(const halvark::FileProviderDomain&) override {}
  std::vector<halvark::FileProviderDomain> domains() override { return {}; }
  std::shared_ptr<DomainManager> manager(const halvark::FileProviderDomain&) override {
    return std::make_shared<Quiet>();
  }

 private:
  // Nothing is on disk yet.
  struct Nothing : ItemEnumerator {
    void enumerateItems(std::shared_ptr<EnumerationObserver> observer, const Page&) override {
      observer->finishEnumeratingUpToPage(std::nullopt);
    }
  };
  struct Quiet : DomainManager {
    void signalWorkingSet() override {}
    std::shared_ptr<ItemEnumerator> materializedItemsEnumerator() override {
      return std::make_shared<Nothing>();
    }
  };
};

json call(synckit::HTTPTransport& transport, const std::string& method, const std::string& url,
          const json& body = nullptr) {
  synckit::HTTPRequest request;
  request.method = method;
  request.url = url;
  if (!body.is_null()) {
    request.headers = {{"Content-Type", "application/json"}};
    request.body = synckit::toBytes(body.dump());
  }
  const synckit::HTTPResponse response = transport.send(request);
  if (response.status >= 300) {
    throw std::runtime_error(method + " " + url + ": HTTP " + std::to_string(response.status) +
                             " " + synckit::toString(response.body));
  }
  return json::parse(synckit::toString(response.body));
}

// Signs in as the member demo with PKCE, filling in the server's login form
// as a browser would.
synckit::OAuthTokenResponse signIn(synckit::OAuthClient& oauth, std::string& clientId) {
  const synckit::AuthServerMetadata metadata = oauth.discover();
  clientId = oauth
                 .registerClient(metadata, synckit::OAuthClient::clientName,
                                 {std::string(synckit::OAuthClient::redirectURI)})
                 .clientId;
  const synckit::PKCE pkce = synckit::PKCE::generate();
  const auto authorize = synckit::URLComponents::parse(
      oauth.authorizationURL(metadata, clientId, synckit::OAuthClient::redirectURI, "bench", pkce,
                             std::nullopt, synckit::OAuthClient::scope));
  if (!authorize || !authorize->host || !authorize->port)
    throw std::runtime_error("unusable authorization URL");
  httplib::Client browser(*authorize->host, *authorize->port);
  const std::string form =
      authorize->percentEncodedQuery.value_or("") + "&member=demo&password=demo&decision=allow";
  const auto answer = browser.Post(authorize->percentEncodedPath.c_str(), form,
                                   "application/x-www-form-urlencoded");
  if (!answer || answer->status != 302) throw std::runtime_error("the login form refused");
  // The code is URL-safe text: it needs no decoding.
  const auto callback = synckit::URLComponents::parse(answer->get_header_value("Location"));
  const std::string query = "&" + (callback ? callback->percentEncodedQuery.value_or("") : "");
  const auto start = query.find("&code=");
  if (start == std::string::npos) throw std::runtime_error("no authorization code in the redirect");
  const std::string code = query.substr(start + 6, query.find('&', start + 6) - start - 6);
  return oauth.exchangeCode(metadata, code, pkce, clientId, synckit::OAuthClient::redirectURI);
}

std::string fileContent(const std::string& path, std::size_t size) {
  std::string text = path + "\n";
  while (text.size() < size) text += "The quick brown fox jumps over " + path + ".\n";
  text.resize(size - 1);
  text.push_back('\n');
  return text;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3 && argc != 6) {
    std::fprintf(stderr,
                 "usage: initial_sync_setup BASE_URL FILES_DIR [FOLDERS FILES_PER_FOLDER BYTES]\n");
    return 2;
  }
  const std::string baseURL = argv[1];
  const fs::path filesDir = argv[2];
  const int folders = argc == 6 ? std::stoi(argv[3]) : 100;
  const int perFolder = argc == 6 ? std::stoi(argv[4]) : 100;
  const std::size_t bytes = argc == 6 ? std::stoul(argv[5]) : 4096;

  synckit::CurlTransport transport;
  const json created =
      call(transport, "POST", baseURL + "/_control/brains", {{"name", "Bench"}, {"slug", "bench"}});
  const std::string brainId = created.at("brain").at("id");
  const auto brain = *synckit::Uuid::parse(brainId);

  // The files, on the server and in the baseline's folder.
  const auto seedStart = std::chrono::steady_clock::now();
  std::atomic<int> next{0};
  std::vector<std::jthread> writers;
  for (int w = 0; w < 8; ++w) {
    writers.emplace_back([&] {
      for (int i = next++; i < folders * perFolder; i = next++) {
        char name[64];
        std::snprintf(name, sizeof name, "folder-%03d/note-%05d.md", i / perFolder, i);
        const std::string content = fileContent(name, bytes);
        call(transport, "POST", baseURL + "/_control/brains/" + brainId + "/write",
             {{"path", name}, {"content", content}});
        fs::create_directories((filesDir / name).parent_path());
        std::ofstream(filesDir / name, std::ios::binary) << content;
      }
    });
  }
  writers.clear();
  std::fprintf(stderr, "seeded %d files in %.1f s\n", folders * perFolder,
               std::chrono::duration<double>(std::chrono::steady_clock::now() - seedStart).count());

  // A container signed in as the application leaves it, with the tokens in
  // the token file (no Secret Service in the run) and the store synced.
  synckit::AppGroup::sharedDefaults()->set(synckit::AppGroup::baseURLOverrideKey, baseURL);
  auto store = synckit::MetadataStore::open(synckit::AppGroup::databaseURL());
  synckit::FileTokenStore tokenFile(synckit::AppGroup::tokenFileURL());
  synckit::OAuthClient oauth(baseURL, transport);
  std::string clientId;
  const synckit::OAuthTokenResponse tokens = signIn(oauth, clientId);
  store->setMeta(synckit::MetaKey::clientId, clientId);
  synckit::TokenManager tokenManager(baseURL, transport, tokenFile, *store);
  tokenManager.signIn(tokens);
  synckit::SyncAPIClient api(baseURL, transport, tokenManager);
  store->setMeta(synckit::MetaKey::deviceId, api.registerDevice("bench-machine", "linux").id);
  store->setMeta(synckit::MetaKey::deviceName, "bench-machine");

  NoFileProvider noProvider;
  halvark::DomainController domainController(*store, api, tokenManager, noProvider);
  domainController.refreshBrains();
  const std::size_t nodes = static_cast<std::size_t>(folders) * (perFolder + 1);
  {
    halvark::SyncScheduler scheduler(*store, api, tokenManager, domainController, {});
    scheduler.start();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
    while (store->nodes(brain).size() < nodes) {
      if (std::chrono::steady_clock::now() > deadline)
        throw std::runtime_error("the store did not receive the brain in time");
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  std::fprintf(stderr, "store holds %zu nodes of the brain\n", store->nodes(brain).size());
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "initial_sync_setup: %s\n", error.what());
  return 1;
}
