#include "platform/linux/openssl_crypto.h"

#include <gtest/gtest.h>

namespace norvik {
namespace {

Bytes fromHex(std::string_view hex) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

TEST(OpenSslCrypto, HmacSha256MatchesTheStandardVector) {
  OpenSslCrypto crypto;
  // RFC 4231, test case 2.
  EXPECT_EQ(hexLower(crypto.hmacSha256(asBytes("Jefe"), asBytes("what do ya want for nothing?"))),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(crypto.hmacSha256({}, {}).size(), 32u) << "an empty key and message are valid";
}

TEST(OpenSslCrypto, AesGcmMatchesTheStandardVectorAndDetectsTampering) {
  OpenSslCrypto crypto;
  // The published GCM test vectors, case 14: zero key, zero nonce, 16 zero bytes.
  const Bytes key(32, 0);
  const Bytes nonce(12, 0);
  auto sealed = crypto.aesGcmSeal(key, nonce, Bytes(16, 0));
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(hexLower(*sealed), "cea7403d4d606b6e074ec5d3baf39d18d0d1c8a799996bf0265b98b5d48ab919");

  auto opened = crypto.aesGcmOpen(key, nonce, *sealed);
  ASSERT_TRUE(opened.has_value());
  EXPECT_EQ(*opened, Bytes(16, 0));

  Bytes tampered = *sealed;
  tampered[3] ^= 1;
  EXPECT_FALSE(crypto.aesGcmOpen(key, nonce, tampered).has_value());
  EXPECT_FALSE(crypto.aesGcmSeal(Bytes(16, 0), nonce, Bytes{}).has_value()) << "AES-128 keys are refused";
  EXPECT_EQ(fromHex("00ff"), (Bytes{0x00, 0xFF}));
}

TEST(OpenSslCrypto, RandomBytesDifferEachTime) {
  OpenSslCrypto crypto;
  auto a = crypto.randomBytes(32);
  auto b = crypto.randomBytes(32);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->size(), 32u);
  EXPECT_NE(*a, *b);
}

}  // namespace
}  // namespace norvik
