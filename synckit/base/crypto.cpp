#include "synckit/base/crypto.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <limits>
#include <stdexcept>

namespace synckit {

Bytes secureRandomBytes(std::size_t count) {
  Bytes bytes(count);
  if (count > static_cast<std::size_t>(std::numeric_limits<int>::max()) ||
      RAND_bytes(bytes.data(), static_cast<int>(count)) != 1) {
    throw RandomSourceError();
  }
  return bytes;
}

struct Sha256Hasher::State {
  EVP_MD_CTX* context = nullptr;
};

Sha256Hasher::Sha256Hasher() : state_(new State) {
  state_->context = EVP_MD_CTX_new();
  if (!state_->context || EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr) != 1) {
    EVP_MD_CTX_free(state_->context);
    delete state_;
    throw std::runtime_error("SHA-256 is not available");
  }
}

Sha256Hasher::~Sha256Hasher() {
  EVP_MD_CTX_free(state_->context);
  delete state_;
}

void Sha256Hasher::update(std::span<const std::uint8_t> data) {
  if (!data.empty()) EVP_DigestUpdate(state_->context, data.data(), data.size());
}

Sha256Digest Sha256Hasher::finish() {
  Sha256Digest digest{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(state_->context, digest.data(), &length);
  return digest;
}

Sha256Digest sha256(std::span<const std::uint8_t> data) {
  Sha256Digest digest{};
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha256(), nullptr);
  return digest;
}

Sha256Digest sha256(std::string_view text) {
  return sha256(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

std::string hexLower(std::span<const std::uint8_t> data) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(data.size() * 2);
  for (auto b : data) {
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 0x0F]);
  }
  return out;
}

std::string base64Encode(std::span<const std::uint8_t> data) {
  static constexpr char alphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < data.size(); i += 3) {
    std::uint32_t n = data[i] << 16 | data[i + 1] << 8 | data[i + 2];
    out.push_back(alphabet[n >> 18 & 63]);
    out.push_back(alphabet[n >> 12 & 63]);
    out.push_back(alphabet[n >> 6 & 63]);
    out.push_back(alphabet[n & 63]);
  }
  std::size_t rest = data.size() - i;
  if (rest == 1) {
    std::uint32_t n = data[i] << 16;
    out.push_back(alphabet[n >> 18 & 63]);
    out.push_back(alphabet[n >> 12 & 63]);
    out += "==";
  } else if (rest == 2) {
    std::uint32_t n = data[i] << 16 | data[i + 1] << 8;
    out.push_back(alphabet[n >> 18 & 63]);
    out.push_back(alphabet[n >> 12 & 63]);
    out.push_back(alphabet[n >> 6 & 63]);
    out.push_back('=');
  }
  return out;
}

std::string base64URLEncode(std::span<const std::uint8_t> data) {
  std::string out = base64Encode(data);
  std::string result;
  result.reserve(out.size());
  for (char c : out) {
    if (c == '+') result.push_back('-');
    else if (c == '/') result.push_back('_');
    else if (c != '=') result.push_back(c);
  }
  return result;
}

}  // namespace synckit
