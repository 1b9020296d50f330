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

// Sends the local changes waiting in the store's queue to the server, one at
// a time in id order, and settles each: accepted and recorded, kept on this
// computer with a visible upload error, bounced through the conflict
// resolver, or left untouched for a later pass. The bytes of an edit wait in
// the spool as "edit-{id}" and leave it only after the store has recorded
// where they went (uploaded, a copy, or the node's own key).
//
// Stateless. Blocks for the requests; runs on one brain's pass thread while
// the caller holds the execution lock.
namespace PendingEditUploader {

// How one waiting change was settled. A plain value.
struct Result {
  // Refused; the text says why.
  struct Rejected {
    std::string text;
    bool operator==(const Rejected&) const = default;
  };
  // Done: the waiting change is gone.
  struct Uploaded {
    bool operator==(const Uploaded&) const = default;
  };
  // Refused for lack of write access: the resolver took over, or the edit
  // stays on this computer.
  struct Bounced {
    bool operator==(const Bounced&) const = default;
  };
  // Nothing settled: the waiting change and its spool file stay.
  struct RetryLater {
    bool operator==(const RetryLater&) const = default;
  };

  enum class Kind { rejected, uploaded, bounced, retryLater };

  static Result rejected(std::string text) { return Result{Rejected{std::move(text)}}; }
  static Result uploaded() { return Result{Uploaded{}}; }
  static Result bounced() { return Result{Bounced{}}; }
  static Result retryLater() { return Result{RetryLater{}}; }

  Kind kind() const noexcept { return static_cast<Kind>(value.index()); }
  std::optional<std::string> rejectedText() const {
    if (const auto* rejected = std::get_if<Rejected>(&value)) return rejected->text;
    return std::nullopt;
  }

  // Alternatives in the order of Kind.
  std::variant<Rejected, Uploaded, Bounced, RetryLater> value;

  bool operator==(const Result&) const = default;
};

// Settles every waiting change (of `brainId`, or of all brains) in id order:
// moves, deletes and folders by themselves, queued copies through
// ConflictCopyUploader, edits through upload(); a create or update with
// neither a copy nor an edit in the spool is passed over. Checks
// cancellation before each change. The first error thrown ends the drain:
// FORBIDDEN (the device was revoked), a 401 the token manager could not
// cure, TokenManagerError, CancellationError, FileNotFoundError, and the
// store's and spool's errors.
std::vector<Result> drain(ConflictResolver& resolver, MetadataStore& store,
                          const ConflictSpool& spool, const std::string& deviceId,
                          const SyncAPIClient& api, TokenManager& tokenManager,
                          const std::optional<Uuid>& brainId);

// Sends the edit of waiting create or update `journalId`. Throws
// FileNotFoundError when its "edit-{id}" is missing, and what drain throws.
Result upload(std::int64_t journalId, ConflictResolver& resolver, MetadataStore& store,
              const ConflictSpool& spool, const std::string& deviceId, const SyncAPIClient& api,
              TokenManager& tokenManager, Timestamp now);

}  // namespace PendingEditUploader
}  // namespace synckit
