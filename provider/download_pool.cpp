#include "provider/download_pool.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <utility>

#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/cancellation.h"
#include "synckit/base/error.h"

namespace halvark::provider {
namespace {

bool sameHex(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

std::span<const std::uint8_t> bytesOf(const synckit::DownloadedFile& file) {
  if (const auto* text = file.as<synckit::DownloadedFile::Text>()) {
    return {reinterpret_cast<const std::uint8_t*>(text->content.data()), text->content.size()};
  }
  return file.as<synckit::DownloadedFile::Blob>()->data;
}

std::int64_t expectedBytes(const DownloadJob& job) { return job.blobSize.value_or(0); }

}  // namespace

DownloadPool::DownloadPool(Fetch fetch, MirrorRoot& mirror, std::size_t workers)
    : fetch_(std::move(fetch)),
      mirror_(mirror),
      capacity_(std::max<std::size_t>(256, 4 * workers)) {
  const std::size_t count = workers == 0 ? 1 : workers;
  workers_.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    workers_.emplace_back([this](std::stop_token stop) { work(stop); });
  }
}

DownloadPool::~DownloadPool() {
  // Every worker is told first, so that all transfers in flight abort
  // together rather than one after the other's join.
  for (std::jthread& worker : workers_) worker.request_stop();
  workers_.clear();
}

DownloadPool::Fetch DownloadPool::readingWith(synckit::SyncAPIClient& api,
                                              synckit::TokenManager& tokens) {
  return [&api, &tokens](const DownloadJob& job) {
    return tokens.withAuthRetry([&] {
      return api.readFile(job.brainId, job.nodePath, std::to_string(job.contentVersion));
    });
  };
}

void DownloadPool::submit(DownloadJob job) {
  {
    std::lock_guard lock(mutex_);
    progress_.filesRemaining += 1;
    progress_.bytesRemaining += expectedBytes(job);
    queue_.push_back(std::move(job));
  }
  jobAvailable_.notify_one();
}

std::optional<DownloadResult> DownloadPool::next() {
  std::optional<DownloadResult> result;
  {
    std::unique_lock lock(mutex_);
    const bool ready = resultAvailable_.wait(lock, synckit::currentStopToken(), [&] {
      return !results_.empty() || (queue_.empty() && running_ == 0);
    });
    if (!ready) throw synckit::CancellationError();
    if (results_.empty()) return std::nullopt;
    result.emplace(std::move(results_.front()));
    results_.pop_front();
  }
  jobAvailable_.notify_all();
  return result;
}

std::vector<DownloadResult> DownloadPool::takeReady() {
  std::vector<DownloadResult> ready;
  {
    std::lock_guard lock(mutex_);
    ready.reserve(results_.size());
    for (DownloadResult& result : results_) ready.push_back(std::move(result));
    results_.clear();
  }
  if (!ready.empty()) jobAvailable_.notify_all();
  return ready;
}

DownloadPool::Progress DownloadPool::progress() const {
  std::lock_guard lock(mutex_);
  return progress_;
}

void DownloadPool::work(std::stop_token stop) {
  synckit::CancellationScope scope(stop);
  for (;;) {
    DownloadJob job;
    {
      std::unique_lock lock(mutex_);
      // Taking a job only while the finished ones fit keeps staged files
      // (and their descriptors) bounded when commits fall behind.
      const bool taken = jobAvailable_.wait(
          lock, stop, [&] { return !queue_.empty() && results_.size() + running_ < capacity_; });
      if (!taken) return;
      job = std::move(queue_.front());
      queue_.pop_front();
      ++running_;
    }
    const std::int64_t bytes = expectedBytes(job);
    std::optional<DownloadResult> result;
    try {
      result.emplace(run(std::move(job)));
    } catch (const synckit::CancellationError&) {
      // Only a stopping pool cancels a worker; nobody waits for this job.
    }
    {
      std::lock_guard lock(mutex_);
      --running_;
      progress_.filesRemaining -= 1;
      progress_.bytesRemaining -= bytes;
      if (result) results_.push_back(std::move(*result));
    }
    resultAvailable_.notify_all();
    if (!result) return;
  }
}

DownloadResult DownloadPool::run(DownloadJob job) {
  DownloadResult result{std::move(job), std::nullopt, 0, {}, nullptr};
  try {
    const synckit::DownloadedFile file = fetch_(result.job);
    const std::span<const std::uint8_t> bytes = bytesOf(file);
    result.size = static_cast<std::int64_t>(bytes.size());
    result.digest = synckit::sha256(bytes);
    const DownloadJob& wanted = result.job;
    if ((wanted.blobSize && *wanted.blobSize != result.size) ||
        (wanted.blobHash && !sameHex(synckit::hexLower(result.digest), *wanted.blobHash))) {
      throw synckit::Error("The content downloaded for \u201c" + wanted.nodePath +
                           "\u201d does not match its hash.");
    }
    MirrorRoot::StagedFile staged = mirror_.stage();
    staged.write(bytes);
    // Not flushed here: the committer flushes the file system once per
    // batch, which costs far less than one flush per small file.
    result.staged.emplace(std::move(staged));
  } catch (const synckit::CancellationError&) {
    throw;
  } catch (...) {
    result.failure = std::current_exception();
  }
  return result;
}

}  // namespace halvark::provider
