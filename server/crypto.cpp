#include "server/crypto.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <stdexcept>
#include <vector>

#include "server/base64.h"

namespace devserver {
namespace {

std::array<unsigned char, 32> sha256(std::string_view bytes) {
  std::array<unsigned char, 32> digest{};
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 failed");
  }
  return digest;
}

std::string hex(const unsigned char* data, std::size_t size) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    out.push_back(digits[data[i] >> 4]);
    out.push_back(digits[data[i] & 0x0f]);
  }
  return out;
}

std::vector<unsigned char> randomBytes(std::size_t count) {
  std::vector<unsigned char> bytes(count);
  if (count > 0 && RAND_bytes(bytes.data(), static_cast<int>(count)) != 1) {
    throw std::runtime_error("The system random source failed");
  }
  return bytes;
}

}  // namespace

std::string sha256Hex(std::string_view bytes) {
  auto digest = sha256(bytes);
  return hex(digest.data(), digest.size());
}

std::string sha256Base64Url(std::string_view bytes) {
  auto digest = sha256(bytes);
  return base64Encode(std::string_view(reinterpret_cast<const char*>(digest.data()), digest.size()),
                      true);
}

std::string randomToken(std::size_t byteCount) {
  auto bytes = randomBytes(byteCount);
  return base64Encode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                      true);
}

std::string randomHex(std::size_t byteCount) {
  auto bytes = randomBytes(byteCount);
  return hex(bytes.data(), bytes.size());
}

std::string randomUuid() {
  auto bytes = randomBytes(16);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
  std::string h = hex(bytes.data(), bytes.size());
  return h.substr(0, 8) + "-" + h.substr(8, 4) + "-" + h.substr(12, 4) + "-" + h.substr(16, 4) +
         "-" + h.substr(20);
}

}  // namespace devserver
