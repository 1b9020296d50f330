// Waiting local changes against the reference service: every way an upload
// can end (accepted, refused for lack of write access, refused for good,
// failed for now, refused authorisation), a reset that overtakes waiting
// changes, and crashes at each store and spool step of an upload.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "synckit/api/curl_transport.h"
#include "synckit/base/crash_point.h"
#include "synckit/base/crypto.h"
#include "synckit/conflicts/conflict_copy_uploader.h"
#include "synckit/conflicts/conflict_event_log.h"
#include "synckit/conflicts/conflict_resolver.h"
#include "synckit/conflicts/conflict_spool_pruner.h"
#include "synckit/engine/local_mutations.h"
#include "synckit/engine/pending_edit_uploader.h"
#include "synckit/engine/reconciler.h"
#include "synckit/platform/path_rules.h"
#include "synckit/store/meta_key.h"
#include "synckit/store/metadata_store.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/temporary_directory.h"
#include "tests/e2e/devserver_session.h"

namespace halvark::e2e {
namespace {

using nlohmann::json;
using synckit::Bytes;
using synckit::ConflictEvent;
using synckit::MetadataStore;
using synckit::PendingChangeKind;
using Result = synckit::PendingEditUploader::Result;

constexpr std::string_view kDevice = "e2e-machine";
// Shorter than the delay the timeout case asks of the server.
constexpr std::chrono::milliseconds kRequestTimeout{1500};

// The collaborators of one pass. The crash sweep's child process builds its
// own; the tests use the fixture's.
struct Client {
  MetadataStore& store;
  const synckit::ConflictSpool& spool;
  const synckit::SyncAPIClient& api;
  synckit::TokenManager& tokens;
  std::string deviceId;
  synckit::Uuid brainId;
};

std::unique_ptr<synckit::ConflictResolver> resolverFor(const Client& c) {
  return std::make_unique<synckit::ConflictResolver>(
      c.store, std::string(kDevice), c.spool, [] { return synckit::Timestamp::now(); },
      [](const auto&, const auto&) { return std::optional<Bytes>(); });
}

// Brings the store up to the server's feed as the sync loop does: a reset
// through the resolver, incremental pages through the reconciler.
void pull(const Client& c) {
  auto resolver = resolverFor(c);
  for (int page = 0; page < 100; ++page) {
    auto answer = c.tokens.withAuthRetry(
        [&] { return c.api.fetchChanges(c.brainId, c.store.cursor(c.brainId), c.deviceId); });
    if (auto* reset = answer.as<synckit::ChangesResponse::Reset>()) {
      resolver->applyReset(reset->snapshot, c.brainId, reset->cursor);
      continue;
    }
    auto& incremental = std::get<synckit::ChangesResponse::Incremental>(answer.value);
    synckit::Reconciler::reconcile(incremental.entries, c.brainId, incremental.cursor, c.store,
                                   resolver->conflictHandler());
    if (incremental.entries.empty()) return;
  }
}

std::vector<Result> drain(const Client& c) {
  auto resolver = resolverFor(c);
  return synckit::PendingEditUploader::drain(*resolver, c.store, c.spool, c.deviceId, c.api,
                                             c.tokens, c.brainId);
}

// One pass of the loop: pull, upload, prune.
std::vector<Result> pass(const Client& c) {
  pull(c);
  auto results = drain(c);
  synckit::ConflictSpoolPruner::prune(c.spool, c.store);
  return results;
}

std::string textOf(const Bytes& bytes) { return synckit::toString(bytes); }

class UploadOutcomesTest : public ::testing::Test, protected DevServerSession {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(signIn());
    brain_ = demoBrain();
    auto id = synckit::Uuid::parse(brain_.id);
    ASSERT_TRUE(id);
    brainId_ = *id;
    openStore();
    store_->upsertBrain({brainId_, brain_.slug, brain_.name, std::nullopt});
    store_->setMeta(synckit::MetaKey::deviceName, std::string(kDevice));
    pull(client());
  }

  void openStore() { store_ = MetadataStore::open(directory_ / "sync.sqlite"); }
  Client client() { return {*store_, spool_, api_, tokens_, deviceId_, brainId_}; }

  // A local edit as the file provider journals it: the queued change and
  // its bytes in the spool.
  std::int64_t edit(const std::string& path, std::string_view content) {
    auto node = store_->nodeAtPath(brainId_, path);
    auto id = synckit::LocalMutations::journalUpsert(
        *store_, brainId_, path, node ? std::optional(node->nodeId) : std::nullopt, !node,
        synckit::Timestamp::now());
    spool_.writeEdit(synckit::toBytes(content), id);
    return id;
  }
  std::int64_t move(const std::string& from, const std::string& to) {
    auto node = store_->nodeAtPath(brainId_, from);
    return synckit::LocalMutations::journalMove(*store_, brainId_,
                                                node ? std::optional(node->nodeId) : std::nullopt,
                                                from, to, synckit::Timestamp::now());
  }
  std::int64_t remove(const std::string& path) {
    auto node = store_->nodeAtPath(brainId_, path);
    return synckit::LocalMutations::journalDelete(*store_, brainId_,
                                                  node ? std::optional(node->nodeId) : std::nullopt,
                                                  path, synckit::Timestamp::now());
  }

  // Changes made on the server by somebody else.
  void serverWrite(const std::string& path, const std::string& content) {
    control("POST", "/brains/" + brain_.id + "/write", {{"path", path}, {"content", content}});
  }
  void readOnly(const std::string& path) {
    control("POST", "/brains/" + brain_.id + "/read-only", {{"path", path}});
  }
  void fault(json body) { control("POST", "/faults", body); }

  // The server's files: text content as it is, blobs as "base64:" + data.
  std::map<std::string, std::string> serverFiles() {
    std::map<std::string, std::string> files;
    const json tree = control("GET", "/brains/" + brain_.id + "/tree");
    for (const json& node : tree.at("nodes")) {
      if (node.at("isDirectory").get<bool>()) continue;
      files[node.at("path")] = node.contains("base64")
                                   ? "base64:" + node["base64"].get<std::string>()
                                   : node.value("content", "");
    }
    return files;
  }
  std::vector<std::string> serverPathsHolding(const std::string& content) {
    std::vector<std::string> paths;
    for (const auto& [path, held] : serverFiles()) {
      if (held == content) paths.push_back(path);
    }
    return paths;
  }
  // The spool entries (edits, copies, node contents) holding `content`.
  int spoolEntriesHolding(const std::string& content) {
    int count = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(spool_.directory, error)) {
      // A dot file is a write that a crash cut short before its rename:
      // never an entry.
      const std::string name = entry.path().filename().string();
      if (name.starts_with(".")) continue;
      if (auto bytes = spool_.read(name); bytes && textOf(*bytes) == content) {
        ++count;
      }
    }
    return count;
  }
  bool queued(std::int64_t id) { return store_->pendingChange(id).has_value(); }
  std::vector<ConflictEvent> events() { return synckit::ConflictEventLog::drain(*store_); }

  synckit::testing::TemporaryDirectory directory_;
  synckit::ConflictSpool spool_{directory_ / "Spool"};
  std::unique_ptr<MetadataStore> store_;
  synckit::Brain brain_;
  synckit::Uuid brainId_;
};

TEST_F(UploadOutcomesTest, AcceptedChangesReachTheServerAndAreRecorded) {
  serverWrite("old/gone.md", "x");
  serverWrite("taken/a.md", "mine");
  serverWrite("taken/b.md", "theirs");
  pull(client());
  const Bytes blob = {0x00, 0xff, 0x10, 0x00, 0x89, 'P', 'N', 'G'};

  auto text = edit("up/text.md", "# Text\n");
  auto blobId = synckit::LocalMutations::journalUpsert(
      *store_, brainId_, "up/pic.bin", std::nullopt, true, synckit::Timestamp::now());
  spool_.writeEdit(blob, blobId);
  auto update = edit("Welcome.md", "rewritten");
  synckit::PendingChange folder{std::nullopt,
                                brainId_,
                                std::nullopt,
                                PendingChangeKind::mkdir,
                                "empty",
                                std::nullopt,
                                store_->cursor(brainId_),
                                synckit::Timestamp::now()};
  store_->enqueue(folder);
  move("notes/ideas.md", "ideas.md");
  // Gone from the server already: the move still settles locally.
  control("POST", "/brains/" + brain_.id + "/delete", {{"path", "old/gone.md"}});
  move("old/gone.md", "old/moved.md");
  // The destination is taken on the server: retried under a copy name.
  move("taken/a.md", "taken/b.md");
  remove("notes/2025/march.md");

  auto results = drain(client());
  EXPECT_EQ(results, std::vector<Result>(8, Result::uploaded()));
  EXPECT_EQ(store_->pendingChanges(), std::vector<synckit::PendingChange>());
  EXPECT_FALSE(spool_.exists(synckit::ConflictSpool::editKey(text)));
  EXPECT_FALSE(spool_.exists(synckit::ConflictSpool::editKey(update)));

  auto files = serverFiles();
  EXPECT_EQ(files["up/text.md"], "# Text\n");
  EXPECT_EQ(files["up/pic.bin"], "base64:" + synckit::base64Encode(blob));
  EXPECT_EQ(files["Welcome.md"], "rewritten");
  EXPECT_TRUE(files.contains("ideas.md") && !files.contains("notes/ideas.md"));
  EXPECT_FALSE(files.contains("notes/2025/march.md"));
  EXPECT_EQ(files["taken/b.md"], "theirs");
  auto moved = serverPathsHolding("mine");
  ASSERT_EQ(moved.size(), 1u);
  EXPECT_TRUE(moved[0].starts_with("taken/b (conflicted copy e2e-machine ")) << moved[0];

  // The store agrees, with the server's ids for what went up.
  auto pic = store_->nodeAtPath(brainId_, "up/pic.bin");
  ASSERT_TRUE(pic);
  EXPECT_EQ(pic->kind, synckit::NodeKind::blob);
  EXPECT_EQ(pic->blobSize, static_cast<std::int64_t>(blob.size()));
  EXPECT_FALSE(store_->nodeAtPath(brainId_, "old/gone.md"));
  EXPECT_TRUE(store_->nodeAtPath(brainId_, moved[0]));
  EXPECT_FALSE(store_->nodeAtPath(brainId_, "notes/2025/march.md"));
  // The folder never reached the server, but it is in the store.
  auto empty = store_->nodeAtPath(brainId_, "empty");
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->isDirectory);
  for (const auto& [path, content] : files) EXPECT_FALSE(path.starts_with("empty"));
  EXPECT_FALSE(files.contains("empty"));
}

TEST_F(UploadOutcomesTest, RefusedWritesBounceAndTheLocalVersionSurvives) {
  serverWrite("ro/existing.md", "server");
  serverWrite("ro/keep.md", "keep");
  serverWrite("rw/file.md", "before");
  pull(client());
  readOnly("ro");

  // A create and an update in a read-only folder: each local version ends as
  // a copy kept on this computer, since its folder is read-only too.
  edit("ro/new.md", "created locally");
  edit("ro/existing.md", "updated locally");
  auto results = drain(client());
  EXPECT_EQ(results, std::vector<Result>(2, Result::bounced()));
  for (std::string content : {"created locally", "updated locally"}) {
    EXPECT_TRUE(serverPathsHolding(content).empty());
    EXPECT_EQ(spoolEntriesHolding(content), 1) << content;
  }
  std::vector<ConflictEvent> log = events();
  ASSERT_EQ(log.size(), 4u);
  EXPECT_EQ(log[0].kind, ConflictEvent::Kind::readOnlyBounce);
  EXPECT_EQ(log[0].message, "You don't have write access to “new.md”. Your edit was kept as “" +
                                std::string(synckit::PathRules::lastComponent(*log[0].copyPath)) +
                                "”.");
  EXPECT_EQ(log[1].kind, ConflictEvent::Kind::noWriteAccess);
  EXPECT_EQ(log[1].message, "You don't have write access to this folder, so “" +
                                std::string(synckit::PathRules::lastComponent(*log[0].copyPath)) +
                                "” stays on this computer only.");
  auto copy = store_->nodeAtPath(brainId_, *log[0].copyPath);
  ASSERT_TRUE(copy);
  EXPECT_TRUE(copy->localOnly);
  EXPECT_EQ(copy->uploadError, "No write access");
  EXPECT_EQ(serverFiles()["ro/existing.md"], "server");

  // A later edit of that copy stays on this computer without a request.
  edit(copy->path, "edited again");
  EXPECT_EQ(drain(client()), std::vector<Result>{Result::bounced()});
  EXPECT_EQ(spoolEntriesHolding("edited again"), 1);
  events();

  // Refused in a writable folder: the copy goes up at once.
  fault({{"path", "/file"},
         {"method", "PUT"},
         {"status", 403},
         {"code", "FORBIDDEN_SUBTREE"},
         {"message", "Read-only."}});
  edit("rw/file.md", "my version");
  EXPECT_EQ(drain(client()), std::vector<Result>{Result::bounced()});
  EXPECT_EQ(serverFiles()["rw/file.md"], "before");
  auto uploaded = serverPathsHolding("my version");
  ASSERT_EQ(uploaded.size(), 1u);
  EXPECT_TRUE(uploaded[0].starts_with("rw/file (conflicted copy e2e-machine ")) << uploaded[0];
  auto uploadedNode = store_->nodeAtPath(brainId_, uploaded[0]);
  ASSERT_TRUE(uploadedNode);
  EXPECT_FALSE(uploadedNode->nodeId.starts_with("local:"));
  EXPECT_EQ(spoolEntriesHolding("my version"), 0);
  events();

  // A move out of and a delete inside the read-only folder are undone.
  move("ro/keep.md", "kept.md");
  synckit::LocalMutations::applyMove(*store_, brainId_, "ro/keep.md", "kept.md", std::nullopt,
                                     synckit::Timestamp::now());
  remove("ro/existing.md");
  EXPECT_EQ(drain(client()), std::vector<Result>(2, Result::bounced()));
  EXPECT_TRUE(store_->nodeAtPath(brainId_, "ro/keep.md"));
  EXPECT_FALSE(store_->nodeAtPath(brainId_, "kept.md"));
  EXPECT_TRUE(store_->nodeAtPath(brainId_, "ro/existing.md"));
  log = events();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].message, "You don't have write access to “keep.md”. It was not moved.");
  EXPECT_EQ(log[1].message, "You don't have write access to “existing.md”. It was not deleted.");
  EXPECT_EQ(serverFiles()["ro/keep.md"], "keep");
  EXPECT_EQ(store_->pendingChanges(), std::vector<synckit::PendingChange>());
}

TEST_F(UploadOutcomesTest, ClientErrorsAreKeptLocalWithTheServersMessage) {
  fault({{"path", "/file"},
         {"method", "PUT"},
         {"status", 422},
         {"code", "UNPROCESSABLE"},
         {"message", "Bad front matter."}});
  auto id = edit("notes/new.md", "--- broken");
  EXPECT_EQ(drain(client()), std::vector<Result>{Result::rejected("Bad front matter.")});
  EXPECT_FALSE(queued(id));
  auto node = store_->nodeAtPath(brainId_, "notes/new.md");
  ASSERT_TRUE(node);
  EXPECT_TRUE(node->localOnly);
  EXPECT_EQ(node->uploadError, "Not uploaded: Bad front matter.");
  EXPECT_EQ(spool_.read(synckit::ConflictSpool::nodeKey(node->nodeId)),
            synckit::toBytes("--- broken"));
  EXPECT_FALSE(spool_.exists(synckit::ConflictSpool::editKey(id)));

  fault({{"path", "/move"}, {"status", 400}, {"code", "BAD_REQUEST"}, {"message", "No."}});
  move("Welcome.md", "Hello.md");
  fault({{"path", "/file"},
         {"method", "DELETE"},
         {"status", 404},
         {"code", "NOT_FOUND"},
         {"message", "Gone."}});
  remove("notes/ideas.md");
  EXPECT_EQ(drain(client()),
            (std::vector<Result>{Result::rejected("No."), Result::rejected("Gone.")}));
  EXPECT_EQ(store_->nodeAtPath(brainId_, "Welcome.md")->uploadError, "Not moved: No.");
  EXPECT_EQ(store_->nodeAtPath(brainId_, "notes/ideas.md")->uploadError, "Not deleted: Gone.");
  EXPECT_EQ(store_->pendingChanges(), std::vector<synckit::PendingChange>());

  // A queued copy refused for good keeps its bytes on this computer.
  auto resolver = resolverFor(client());
  auto copy =
      resolver->divertStaleEdit(brainId_, "notes/stale.md", std::nullopt, synckit::toBytes("stale"))
          .copy;
  fault({{"path", "/file"},
         {"method", "PUT"},
         {"status", 409},
         {"code", "CONFLICT"},
         {"message", "Taken."}});
  EXPECT_EQ(synckit::ConflictCopyUploader::drain(*resolver, *store_, spool_, deviceId_, api_,
                                                 tokens_, brainId_),
            std::vector{synckit::ConflictCopyUploader::Result::rejected("Not uploaded: Taken.")});
  auto kept = store_->nodeWithId(brainId_, copy.nodeId);
  ASSERT_TRUE(kept);
  EXPECT_TRUE(kept->localOnly);
  EXPECT_EQ(kept->uploadError, "Not uploaded: Taken.");
  EXPECT_EQ(spool_.read(synckit::ConflictSpool::nodeKey(copy.nodeId)), synckit::toBytes("stale"));
  EXPECT_FALSE(spool_.exists(synckit::ConflictSpool::copyKey(*copy.journalId)));

  // Changes that vanished before their upload.
  EXPECT_EQ(
      synckit::PendingEditUploader::upload(*copy.journalId, *resolver, *store_, spool_, deviceId_,
                                           api_, tokens_, synckit::Timestamp::now()),
      Result::rejected("The queued edit no longer exists."));
  EXPECT_EQ(
      synckit::ConflictCopyUploader::upload(*copy.journalId, *resolver, *store_, spool_, deviceId_,
                                            api_, tokens_, synckit::Timestamp::now()),
      synckit::ConflictCopyUploader::Result::rejected("The queued copy no longer exists."));
}

TEST_F(UploadOutcomesTest, PassingFailuresLeaveTheChangeForTheNextPass) {
  synckit::SyncAPIClient impatient(server_.baseURL(), transport_, tokens_, kRequestTimeout);
  Client c{*store_, spool_, impatient, tokens_, deviceId_, brainId_};
  const std::vector<json> faults = {
      {{"status", 429}, {"code", "RATE_LIMITED"}, {"message", "Slow down."}},
      {{"status", 503}, {"code", "UNAVAILABLE"}, {"message", "Later."}},
      // Twice: the transport may resend once on a fresh connection.
      {{"drop", true}, {"count", 2}},
      {{"delayMs", 3000}},
  };
  for (std::size_t i = 0; i < faults.size(); ++i) {
    SCOPED_TRACE(faults[i].dump());
    const std::string path = "retry/" + std::to_string(i) + ".md";
    json armed = faults[i];
    armed["path"] = "/file";
    fault(armed);
    auto id = edit(path, "attempt " + std::to_string(i));
    EXPECT_EQ(drain(c), std::vector<Result>{Result::retryLater()});
    EXPECT_TRUE(queued(id));
    EXPECT_TRUE(spool_.exists(synckit::ConflictSpool::editKey(id)));
    EXPECT_FALSE(store_->nodeAtPath(brainId_, path));
    EXPECT_EQ(drain(c), std::vector<Result>{Result::uploaded()});
    EXPECT_FALSE(queued(id));
    EXPECT_EQ(serverFiles()[path], "attempt " + std::to_string(i));
  }

  // An expired token is refreshed once and the edit goes up.
  const std::string before = tokens_.currentAccessToken();
  control("POST", "/tokens/expire", {{"member", "demo"}});
  edit("auth/after-expiry.md", "refreshed");
  EXPECT_EQ(drain(c), std::vector<Result>{Result::uploaded()});
  EXPECT_NE(tokens_.currentAccessToken(), before);
  EXPECT_EQ(serverFiles()["auth/after-expiry.md"], "refreshed");

  // A revoked device ends the drain with the server's refusal; nothing after
  // the first change is tried and nothing is settled.
  control("POST", "/devices/" + deviceId_ + "/revoke");
  auto first = edit("auth/revoked.md", "not sent");
  auto second = move("Welcome.md", "Hi.md");
  try {
    drain(c);
    ADD_FAILURE() << "the drain went on";
  } catch (const synckit::SyncAPIError& error) {
    EXPECT_TRUE(error.isForbidden());
    EXPECT_EQ(error.status(), 403);
  }
  EXPECT_TRUE(queued(first) && queued(second));
  EXPECT_TRUE(spool_.exists(synckit::ConflictSpool::editKey(first)));
  EXPECT_TRUE(serverFiles().contains("Welcome.md"));
}

TEST_F(UploadOutcomesTest, AResetRebasesDropsOrCopiesWaitingChanges) {
  serverWrite("r/same.md", "same");
  serverWrite("r/changed.md", "base");
  serverWrite("r/moved.md", "m");
  serverWrite("r/deleted.md", "d");
  pull(client());

  auto rebasedEdit = edit("r/same.md", "local same");
  auto copiedEdit = edit("r/changed.md", "local changed");
  auto droppedMove = move("r/moved.md", "r/elsewhere.md");
  auto rebasedDelete = remove("r/deleted.md");
  // Meanwhile, unseen by this computer: another writer changes one file and
  // removes another, and every cursor is forgotten.
  serverWrite("r/changed.md", "theirs");
  control("POST", "/brains/" + brain_.id + "/delete", {{"path", "r/moved.md"}});
  control("POST", "/brains/" + brain_.id + "/invalidate-cursors");

  pull(client());
  EXPECT_TRUE(queued(rebasedEdit));
  EXPECT_TRUE(queued(rebasedDelete));
  EXPECT_FALSE(queued(copiedEdit));
  EXPECT_FALSE(queued(droppedMove));
  EXPECT_EQ(store_->pendingChange(rebasedEdit)->baseCursor, store_->cursor(brainId_));
  std::vector<ConflictEvent> log = events();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].kind, ConflictEvent::Kind::resetConflict);
  EXPECT_EQ(log[0].message,
            "“changed.md” changed on the server while this computer was offline "
            "or out of date. Your version was kept as “" +
                std::string(synckit::PathRules::lastComponent(*log[0].copyPath)) + "”.");

  drain(client());
  auto files = serverFiles();
  EXPECT_EQ(files["r/same.md"], "local same");
  EXPECT_EQ(files["r/changed.md"], "theirs");
  EXPECT_EQ(serverPathsHolding("local changed"), std::vector<std::string>{*log[0].copyPath});
  EXPECT_FALSE(files.contains("r/deleted.md"));
  EXPECT_FALSE(files.contains("r/elsewhere.md") || files.contains("r/moved.md"));
  EXPECT_EQ(store_->pendingChanges(), std::vector<synckit::PendingChange>());
  // The store agrees with the server, path for path.
  pass(client());
  for (const auto& [path, content] : files) EXPECT_TRUE(store_->nodeAtPath(brainId_, path)) << path;
  for (const auto& node : store_->nodes(brainId_)) {
    if (!node.isDirectory) {
      EXPECT_TRUE(files.contains(node.path)) << node.path;
    }
  }
}

// The crash sweep: the work of one pass runs in a child process that exits
// at its Nth crash point (every store commit, spool write and spool
// removal); the parent then runs a normal pass and checks that the server
// and the store agree and the local version exists exactly once. N grows
// until the child finishes without reaching it.
class CrashSweepTest : public UploadOutcomesTest {
 protected:
  static constexpr int kCrashed = 77;

  // Runs `work` in a child on objects of its own; returns true when it
  // crashed at point `n`, false when it finished first.
  bool runChild(int n, const std::function<void(const Client&)>& work) {
    auto tokenSet = tokenStore_.load();
    store_.reset();  // no connection may cross the fork
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
      int code = 1;
      try {
        synckit::CurlTransport transport;
        synckit::testing::InMemoryTokenStore tokenStore(tokenSet);
        std::string clientId = clientId_;
        synckit::TokenManager tokens(server_.baseURL(), transport, tokenStore,
                                     [clientId] { return clientId; });
        synckit::SyncAPIClient api(server_.baseURL(), transport, tokens);
        auto store = MetadataStore::open(directory_ / "sync.sqlite");
        int reached = 0;
        synckit::setCrashPointHook([&] {
          if (++reached == n) ::_exit(kCrashed);
        });
        work({*store, spool_, api, tokens, deviceId_, brainId_});
        code = 0;
      } catch (const std::exception& error) {
        std::fprintf(stderr, "child failed: %s\n", error.what());
      }
      ::_exit(code);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    openStore();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_TRUE(WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kCrashed)
        << "child status " << WEXITSTATUS(status);
    return WIFEXITED(status) && WEXITSTATUS(status) == kCrashed;
  }

  // Sweeps N from 1; `prepare` sets up round N and returns a check to run
  // after the next pass. Returns the number of crash points tried.
  int sweep(const std::function<std::function<void()>(int)>& prepare,
            const std::function<void(const Client&)>& work) {
    for (int n = 1; n < 50; ++n) {
      SCOPED_TRACE("crash point " + std::to_string(n));
      auto check = prepare(n);
      bool crashed = runChild(n, work);
      pass(client());
      check();
      events();
      if (::testing::Test::HasFailure() || !crashed) return n - 1;
    }
    ADD_FAILURE() << "the sweep did not end";
    return 0;
  }

  // The local version `content` is at the server exactly once (at `path`
  // when given) and nowhere in the queue or spool, and the store has the
  // file as the server does.
  void expectOnceAtServer(const std::string& content, const std::optional<std::string>& path) {
    auto holders = serverPathsHolding(content);
    ASSERT_EQ(holders.size(), 1u) << content;
    if (path) {
      EXPECT_EQ(holders[0], *path);
    }
    EXPECT_EQ(spoolEntriesHolding(content), 0) << content;
    auto node = store_->nodeAtPath(brainId_, holders[0]);
    ASSERT_TRUE(node) << holders[0];
    EXPECT_FALSE(node->localOnly);
    EXPECT_FALSE(node->nodeId.starts_with("local:")) << node->nodeId;
    EXPECT_EQ(store_->pendingChanges(), std::vector<synckit::PendingChange>());
  }
};

TEST_F(CrashSweepTest, EveryCrashPointOfAnUploadLeavesOneLocalVersion) {
  auto uploadWork = [](const Client& c) { drain(c); };

  int editPoints = sweep(
      [&](int n) {
        std::string path = "crash/edit-" + std::to_string(n) + ".md";
        std::string content = "edit " + std::to_string(n);
        edit(path, content);
        return std::function<void()>([=, this] { expectOnceAtServer(content, path); });
      },
      uploadWork);
  EXPECT_GE(editPoints, 2);

  int copyPoints = sweep(
      [&](int n) {
        std::string path = "crash/copy-" + std::to_string(n) + ".md";
        std::string content = "copy " + std::to_string(n);
        auto resolver = resolverFor(client());
        auto bounce =
            resolver->divertStaleEdit(brainId_, path, std::nullopt, synckit::toBytes(content));
        std::string copyPath = bounce.copy.copyPath;
        return std::function<void()>([=, this] { expectOnceAtServer(content, copyPath); });
      },
      [](const Client& c) {
        auto resolver = resolverFor(c);
        synckit::ConflictCopyUploader::drain(*resolver, c.store, c.spool, c.deviceId, c.api,
                                             c.tokens, c.brainId);
      });
  EXPECT_GE(copyPoints, 2);

  int resetPoints = sweep(
      [&](int n) {
        std::string kept = "crash/kept-" + std::to_string(n) + ".md";
        std::string lost = "crash/lost-" + std::to_string(n) + ".md";
        serverWrite(kept, "kept base");
        serverWrite(lost, "lost base");
        pull(client());
        std::string keptContent = "kept " + std::to_string(n);
        std::string lostContent = "lost " + std::to_string(n);
        edit(kept, keptContent);
        edit(lost, lostContent);
        serverWrite(lost, "theirs " + std::to_string(n));
        control("POST", "/brains/" + brain_.id + "/invalidate-cursors");
        return std::function<void()>([=, this] {
          expectOnceAtServer(keptContent, kept);
          expectOnceAtServer(lostContent, std::nullopt);
          EXPECT_EQ(serverFiles()[lost], "theirs " + std::to_string(n));
        });
      },
      [](const Client& c) {
        pull(c);
        drain(c);
      });
  EXPECT_GE(resetPoints, 3);

  std::printf("crash points tried: edit upload %d, copy upload %d, reset reconciliation %d\n",
              editPoints, copyPoints, resetPoints);
}

}  // namespace
}  // namespace halvark::e2e
