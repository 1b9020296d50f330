#include "synckit/auth/pkce.h"

#include <gtest/gtest.h>

namespace synckit {
namespace {

TEST(PKCETest, ChallengeMatchesTheKnownS256Vector) {
  EXPECT_EQ(PKCE::challenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
  EXPECT_EQ(PKCE("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk").challenge(),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

TEST(PKCETest, GeneratedVerifiersAreUnpaddedBase64URLOf64RandomBytes) {
  PKCE first = PKCE::generate();
  // Over many draws every alphabet position turns up, so a "+", "/" or "="
  // that slipped through would be caught.
  for (int i = 0; i < 200; ++i) {
    PKCE pkce = i == 0 ? first : PKCE::generate();
    ASSERT_EQ(pkce.verifier().size(), 86u);
    ASSERT_EQ(pkce.verifier().find_first_not_of(
                  "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos)
        << pkce.verifier();
    if (i > 0) {
      ASSERT_NE(pkce.verifier(), first.verifier());
    }
  }
}

}  // namespace
}  // namespace synckit
