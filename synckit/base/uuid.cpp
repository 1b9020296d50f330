#include "synckit/base/uuid.h"

#include <openssl/rand.h>
#include <pthread.h>

#include <atomic>
#include <cstring>

#include "synckit/base/crypto.h"

namespace synckit {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

Uuid::Text format(const Uuid::Storage& bytes, const char* digits) noexcept {
  Uuid::Text out;
  std::size_t at = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out[at++] = '-';
    out[at++] = digits[bytes[i] >> 4];
    out[at++] = digits[bytes[i] & 0x0F];
  }
  return out;
}

std::string asString(const Uuid::Text& text) { return std::string(text.data(), text.size()); }

// Random bytes are drawn for many identifiers at once: a request to OpenSSL's
// generator costs several thousand instructions however little it returns.
// What a thread has drawn must not outlive a fork, or the child would hand
// out its parent's next identifiers; every fork moves the generation on, and
// a pool from an older generation is thrown away.
std::atomic<unsigned> forkGeneration{0};

void countFork() noexcept { forkGeneration.fetch_add(1, std::memory_order_relaxed); }

class RandomPool {
 public:
  Uuid::Storage next() {
    [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, countFork);
    const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
    if (next_ == kIds || generation_ != generation) {
      if (RAND_bytes(bytes_.data(), static_cast<int>(bytes_.size())) != 1) {
        throw RandomSourceError();
      }
      next_ = 0;
      generation_ = generation;
    }
    Uuid::Storage drawn;
    std::memcpy(drawn.data(), bytes_.data() + next_ * drawn.size(), drawn.size());
    ++next_;
    return drawn;
  }

 private:
  static constexpr std::size_t kIds = 64;
  std::array<std::uint8_t, kIds * 16> bytes_{};
  std::size_t next_ = kIds;
  unsigned generation_ = 0;
};

}  // namespace

Uuid Uuid::random() {
  // OpenSSL's generator runs in user space and reseeds itself after a fork.
  // Node ids are made one per created item, and a system call plus a reseed
  // of libc's random() for each (what libuuid does) came to an eighth of
  // applying a created item.
  thread_local RandomPool pool;
  Storage bytes = pool.next();
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Storage bytes{};
  std::size_t out = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int high = hexValue(text[i]);
    int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[out++] = static_cast<std::uint8_t>(high << 4 | low);
    i += 2;
  }
  return Uuid(bytes);
}

Uuid::Text Uuid::toText() const noexcept { return format(bytes_, "0123456789ABCDEF"); }

std::string Uuid::toString() const { return asString(toText()); }

std::string Uuid::toLowerString() const { return asString(format(bytes_, "0123456789abcdef")); }

}  // namespace synckit

std::size_t std::hash<synckit::Uuid>::operator()(const synckit::Uuid& uuid) const noexcept {
  std::size_t h = 14695981039346656037ull;
  for (auto b : uuid.bytes()) h = (h ^ b) * 1099511628211ull;
  return h;
}
