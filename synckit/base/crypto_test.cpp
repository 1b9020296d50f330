#include "synckit/base/crypto.h"

#include <gtest/gtest.h>

namespace synckit {
namespace {

TEST(CryptoTest, Sha256MatchesKnownVectorsInOneOrManyPieces) {
  EXPECT_EQ(hexLower(sha256(std::string_view(""))),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hexLower(sha256(std::string_view("abc"))),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  Sha256Hasher hasher;
  hasher.update(toBytes("a"));
  hasher.update(toBytes(""));
  hasher.update(toBytes("bc"));
  EXPECT_EQ(hasher.finish(), sha256(std::string_view("abc")));
}

TEST(CryptoTest, Base64AndBase64URL) {
  EXPECT_EQ(base64Encode(toBytes("")), "");
  EXPECT_EQ(base64Encode(toBytes("f")), "Zg==");
  EXPECT_EQ(base64Encode(toBytes("fo")), "Zm8=");
  EXPECT_EQ(base64Encode(toBytes("foo")), "Zm9v");
  Bytes awkward{0xFB, 0xFF, 0xBF};
  EXPECT_EQ(base64Encode(awkward), "+/+/");
  EXPECT_EQ(base64URLEncode(awkward), "-_-_");
  EXPECT_EQ(base64URLEncode(toBytes("fo")), "Zm8");
}

}  // namespace
}  // namespace synckit
