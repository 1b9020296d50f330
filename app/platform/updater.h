#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace synckit {
class HTTPTransport;
}

namespace halvark {

// "Check for Updates…": fetches the release feed, a JSON object
// {"version": "x.y.z", "url": "https://…"} at the URL of the shared default
// "HVUpdateFeedURL", and says whether it names a newer version than this
// one. It only reports; installing is the user's (or the package manager's)
// business.
//
// check() blocks on the network: call it off the main thread. Any thread;
// the transport must be safe to share between threads.
class Updater {
 public:
  static constexpr std::string_view feedURLKey = "HVUpdateFeedURL";

  struct Outcome {
    struct UpToDate {
      bool operator==(const UpToDate&) const = default;
    };
    struct Available {
      std::string version;
      std::string url;  // where the release is, http or https
      bool operator==(const Available&) const = default;
    };
    struct Failed {
      std::string text;  // as shown to the user
      bool operator==(const Failed&) const = default;
    };
    // Cases in the order of the alternatives.
    enum class Kind { upToDate, available, failed };

    Kind kind() const noexcept { return static_cast<Kind>(value.index()); }

    std::variant<UpToDate, Available, Failed> value;
    bool operator==(const Outcome&) const = default;
  };

  using FeedURLSource = std::function<std::optional<std::string>()>;

  // `currentVersion` is this build's ("0.1.0"). `feedURL` says where the
  // feed is; when empty, the "HVUpdateFeedURL" shared default, read on each
  // check. The transport must outlive the updater.
  Updater(std::string currentVersion, synckit::HTTPTransport& transport,
          FeedURLSource feedURL = {});

  // Never throws for a failed check (that is Outcome::Failed) except
  // synckit::CancellationError when the calling thread's stop is requested.
  Outcome check() const;

  // Compares dot-separated decimal numbers ("0.10.0" is newer than
  // "0.9.2", "1.2" equals "1.2.0"): negative, zero or positive as `a` is
  // older than, the same as or newer than `b`; absent when either is not
  // such a version. Pure.
  static std::optional<int> compareVersions(std::string_view a, std::string_view b);

 private:
  std::string currentVersion_;
  synckit::HTTPTransport& transport_;
  FeedURLSource feedURL_;
};

}  // namespace halvark
