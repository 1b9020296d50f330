#include "provider/download_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"
#include "synckit/testing/temporary_directory.h"

namespace halvark::provider {
namespace {

using namespace std::chrono_literals;
using synckit::testing::entryNames;
using synckit::testing::TemporaryDirectory;

DownloadJob jobFor(const std::string& path, std::optional<std::string> blobHash = std::nullopt) {
  DownloadJob job;
  job.nodeId = "node-" + path;
  job.nodePath = path;
  job.mirrorPath = "Brain/" + path;
  job.contentVersion = 1;
  if (blobHash) {
    job.kind = synckit::NodeKind::blob;
    job.blobHash = blobHash;
    job.blobSize = 4;
  }
  return job;
}

TEST(DownloadPoolTest, FetchesSideBySideAndStagesOnlyVerifiedContent) {
  TemporaryDirectory temp;
  MirrorRoot mirror(temp / "Halvark");
  std::mutex mutex;
  std::condition_variable allIn;
  int inFlight = 0;
  int most = 0;
  DownloadPool pool(
      [&](const DownloadJob& job) {
        {
          // Each fetch waits for the others, so all of them must run at once.
          std::unique_lock lock(mutex);
          most = std::max(most, ++inFlight);
          allIn.notify_all();
          allIn.wait_for(lock, 5s, [&] { return most == 4; });
          --inFlight;
        }
        if (job.kind == synckit::NodeKind::blob) return synckit::DownloadedFile::blob({1, 2, 3, 4});
        return synckit::DownloadedFile::text("text of " + job.nodePath);
      },
      mirror, 4);
  const std::string goodHash = synckit::hexLower(synckit::sha256(synckit::Bytes{1, 2, 3, 4}));
  pool.submit(jobFor("a.md"));
  pool.submit(jobFor("good.bin", goodHash));
  pool.submit(jobFor("bad.bin", std::string(64, '0')));
  pool.submit(jobFor("b.md"));
  EXPECT_EQ(pool.progress().filesRemaining, 4);
  EXPECT_EQ(pool.progress().bytesRemaining, 8);

  std::map<std::string, DownloadResult> results;
  while (auto result = pool.next()) results.emplace(result->job.nodePath, std::move(*result));
  EXPECT_EQ(most, 4);
  ASSERT_EQ(results.size(), 4u);
  EXPECT_EQ(pool.progress(), DownloadPool::Progress{});
  EXPECT_FALSE(results.at("bad.bin").staged.has_value());
  EXPECT_THROW(std::rethrow_exception(results.at("bad.bin").failure), synckit::Error);
  EXPECT_EQ(results.at("good.bin").digest, synckit::sha256(synckit::Bytes{1, 2, 3, 4}));
  EXPECT_EQ(results.at("a.md").size, 12);
  EXPECT_EQ(entryNames(mirror.path() / MirrorRoot::stagingFolderName).size(), 3u);
  results.at("a.md").staged->commit("Brain/a.md");
  EXPECT_EQ(mirror.read("Brain/a.md", 100), synckit::toBytes("text of a.md"));
  results.clear();
  EXPECT_TRUE(entryNames(mirror.path() / MirrorRoot::stagingFolderName).empty());
}

TEST(DownloadPoolTest, AWaitingConsumerCanBeCancelledAndDestructionStopsTransfers) {
  TemporaryDirectory temp;
  MirrorRoot mirror(temp / "Halvark");
  std::atomic<int> started = 0;
  std::atomic<int> cancelled = 0;
  auto pool = std::make_unique<DownloadPool>(
      [&](const DownloadJob&) -> synckit::DownloadedFile {
        ++started;
        try {
          synckit::sleepFor(60s);  // a transfer that ends only when stopped
        } catch (const synckit::CancellationError&) {
          ++cancelled;
          throw;
        }
        return synckit::DownloadedFile::text("never");
      },
      mirror, 2);
  pool->submit(jobFor("slow-1.md"));
  pool->submit(jobFor("slow-2.md"));
  pool->submit(jobFor("queued.md"));

  std::stop_source stop;
  std::jthread canceller([&] {
    while (started < 2) std::this_thread::sleep_for(1ms);
    stop.request_stop();
  });
  {
    synckit::CancellationScope scope(stop.get_token());
    EXPECT_THROW(pool->next(), synckit::CancellationError);
  }
  const auto before = std::chrono::steady_clock::now();
  pool.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);
  EXPECT_EQ(started, 2);
  EXPECT_EQ(cancelled, 2);
}

}  // namespace
}  // namespace halvark::provider
