#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "synckit/api/sync_api_client.h"
#include "synckit/auth/token_manager.h"
#include "synckit/base/timestamp.h"
#include "synckit/base/uuid.h"
#include "synckit/conflicts/conflict_resolver.h"
#include "synckit/platform/conflict_spool.h"
#include "synckit/store/metadata_store.h"

namespace synckit {

// Uploads the conflicted copies the resolver queued: a waiting create whose
// bytes are the spool's "copy-{id}". Each copy ends uploaded, kept on this
// computer with a reason, or still queued for a later pass; its bytes are
// never dropped before the store records where they went.
//
// Stateless. Blocks for the requests; runs on the pass's thread, one call at
// a time per store (the caller holds the execution lock).
namespace ConflictCopyUploader {

// How one upload of a queued copy ended. A plain value.
struct Result {
  // Refused for good; the text is the reason recorded on the copy.
  struct Rejected {
    std::string text;
    bool operator==(const Rejected&) const = default;
  };
  // The copy is on the server.
  struct Uploaded {
    bool operator==(const Uploaded&) const = default;
  };
  // The folder is read-only: the copy stays on this computer.
  struct NoWriteAccess {
    bool operator==(const NoWriteAccess&) const = default;
  };
  // A transient failure: the copy stays queued.
  struct RetryLater {
    bool operator==(const RetryLater&) const = default;
  };

  enum class Kind { rejected, uploaded, noWriteAccess, retryLater };

  static Result rejected(std::string text) { return Result{Rejected{std::move(text)}}; }
  static Result uploaded() { return Result{Uploaded{}}; }
  static Result noWriteAccess() { return Result{NoWriteAccess{}}; }
  static Result retryLater() { return Result{RetryLater{}}; }

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  // The reason of a rejection; absent for the other cases.
  std::optional<std::string> rejectedText() const {
    if (const auto* rejected = std::get_if<Rejected>(&value)) return rejected->text;
    return std::nullopt;
  }

  // Alternatives in the order of Kind.
  std::variant<Rejected, Uploaded, NoWriteAccess, RetryLater> value;

  bool operator==(const Result&) const = default;
};

// Sends the copy queued as pending change `journalId`. Rejected when the
// change is gone; FileNotFoundError when its "copy-{id}" is missing.
// FORBIDDEN_SUBTREE hands the copy to resolver.copyUploadBounced. A
// FORBIDDEN answer, a 401 the token manager could not cure, cancellation and
// store or spool errors are thrown; other client errors reject the copy
// (kept on this computer with "Not uploaded: " and the server's message);
// 408, 429, 5xx and transport failures leave it queued.
Result upload(std::int64_t journalId, ConflictResolver& resolver, MetadataStore& store,
              const ConflictSpool& spool, const std::string& deviceId, const SyncAPIClient& api,
              TokenManager& tokenManager, Timestamp now);

// upload() for every queued copy (of `brainId`, or of all brains): waiting
// creates of a "local:" node whose "copy-{id}" exists, in queue order.
std::vector<Result> drain(ConflictResolver& resolver, MetadataStore& store,
                          const ConflictSpool& spool, const std::string& deviceId,
                          const SyncAPIClient& api, TokenManager& tokenManager,
                          const std::optional<Uuid>& brainId);

}  // namespace ConflictCopyUploader
}  // namespace synckit
