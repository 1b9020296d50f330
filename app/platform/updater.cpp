#include "app/platform/updater.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <nlohmann/json.hpp>
#include <vector>

#include "synckit/api/http_transport.h"
#include "synckit/base/error.h"
#include "synckit/platform/app_group.h"

namespace halvark {
namespace {

using Outcome = Updater::Outcome;

constexpr std::chrono::seconds checkTimeout{30};

Outcome failed(std::string text) { return {Outcome::Failed{std::move(text)}}; }

Outcome unreadableFeed() {
  return failed("Could not check for updates: the release feed could not be read.");
}

bool isWebURL(std::string_view url) {
  auto lowered = std::string(url.substr(0, 8));
  for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return (lowered.starts_with("https://") && url.size() > 8) ||
         (lowered.starts_with("http://") && url.size() > 7);
}

std::optional<std::vector<unsigned long>> versionNumbers(std::string_view text) {
  std::vector<unsigned long> numbers;
  while (true) {
    auto dot = text.find('.');
    auto part = text.substr(0, dot);
    unsigned long number = 0;
    auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), number);
    if (part.empty() || error != std::errc() || end != part.data() + part.size())
      return std::nullopt;
    numbers.push_back(number);
    if (dot == std::string_view::npos) return numbers;
    text.remove_prefix(dot + 1);
  }
}

}  // namespace

Updater::Updater(std::string currentVersion, synckit::HTTPTransport& transport,
                 FeedURLSource feedURL)
    : currentVersion_(std::move(currentVersion)),
      transport_(transport),
      feedURL_(std::move(feedURL)) {
  if (!feedURL_) {
    feedURL_ = []() -> std::optional<std::string> {
      auto defaults = synckit::AppGroup::sharedDefaults();
      return defaults ? defaults->string(feedURLKey) : std::nullopt;
    };
  }
}

Outcome Updater::check() const {
  std::optional<std::string> feed = feedURL_();
  if (!feed || !isWebURL(*feed)) return failed("Updates are not configured.");

  synckit::HTTPRequest request;
  request.url = *feed;
  request.headers = {{"Accept", "application/json"}};
  request.timeout = checkTimeout;
  synckit::HTTPResponse response;
  try {
    response = transport_.send(request);
  } catch (const synckit::TransportError& error) {
    return failed("Could not check for updates: " + error.description());
  }
  if (response.status < 200 || response.status > 299) {
    return failed("Could not check for updates: the server answered " +
                  std::to_string(response.status) + ".");
  }

  nlohmann::json json = nlohmann::json::parse(response.body, nullptr, false);
  if (!json.is_object()) return unreadableFeed();
  auto version = json.find("version");
  auto url = json.find("url");
  if (version == json.end() || !version->is_string() || url == json.end() || !url->is_string())
    return unreadableFeed();
  auto offered = version->get<std::string>();
  auto link = url->get<std::string>();
  // The link is opened when the user clicks the message: only web pages.
  if (!isWebURL(link)) return unreadableFeed();
  auto order = compareVersions(offered, currentVersion_);
  if (!order) return unreadableFeed();
  if (*order > 0) return {Outcome::Available{offered, link}};
  return {Outcome::UpToDate{}};
}

std::optional<int> Updater::compareVersions(std::string_view a, std::string_view b) {
  auto left = versionNumbers(a);
  auto right = versionNumbers(b);
  if (!left || !right) return std::nullopt;
  std::size_t length = std::max(left->size(), right->size());
  left->resize(length, 0);
  right->resize(length, 0);
  if (*left < *right) return -1;
  if (*left > *right) return 1;
  return 0;
}

}  // namespace halvark
