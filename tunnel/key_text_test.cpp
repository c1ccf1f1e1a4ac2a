#include "tunnel/key_text.h"

#include <gtest/gtest.h>

namespace norvik {
namespace {

TEST(NormalizeKeyText, TidiesLinesBlankRunsAndSpacesAroundEquals) {
  const std::string input =
      "\n\n  [Interface]  \n"
      "PrivateKey=aGVsbG8tdGhpcy1pcy1hLW1hZGUtdXAta2V5LTAwMDA=\n"
      "Address   =10.8.0.2/32\n"
      "\n\n\n"
      "[Peer]\n"
      "\tPresharedKey =  bWFkZS11cC1wcmVzaGFyZWQta2V5LWZvci10ZXN0czA=  \n"
      "Endpoint = 203.0.113.10:51820\n\n\n";
  EXPECT_EQ(normalizeKeyText(input),
            "[Interface]\n"
            "PrivateKey = aGVsbG8tdGhpcy1pcy1hLW1hZGUtdXAta2V5LTAwMDA=\n"
            "Address = 10.8.0.2/32\n"
            "\n"
            "[Peer]\n"
            "PresharedKey = bWFkZS11cC1wcmVzaGFyZWQta2V5LWZvci10ZXN0czA=\n"
            "Endpoint = 203.0.113.10:51820");
}

TEST(NormalizeKeyText, EqualsSignsInsideAValueSurvive) {
  EXPECT_EQ(normalizeKeyText("Key=a==b="), "Key = a==b=");
  EXPECT_EQ(normalizeKeyText("=orphan"), " = orphan");
  EXPECT_EQ(normalizeKeyText("[Peer = not a pair]"), "[Peer = not a pair]") << "a section header is kept as it is";
  EXPECT_EQ(normalizeKeyText("no equals here"), "no equals here");
}

TEST(NormalizeKeyText, LineEndingsAndInvisibleSpacesOfACopiedKeyDoNotMatter) {
  const std::string unix = "[Interface]\nAddress = 10.8.0.2/32\n\n[Peer]\nEndpoint = 203.0.113.10:51820";
  EXPECT_EQ(normalizeKeyText("[Interface]\r\nAddress=10.8.0.2/32\r\n\r\n[Peer]\r\nEndpoint=203.0.113.10:51820\r\n"),
            unix);
  EXPECT_EQ(normalizeKeyText("\xEF\xBB\xBF[Interface]\rAddress\xC2\xA0= 10.8.0.2/32\xE2\x80\xA8\xE2\x80\xA8[Peer]\n"
                             "Endpoint = 203.0.113.10:51820\xE2\x80\x89"),
            unix);
  EXPECT_EQ(normalizeKeyText(normalizeKeyText(unix)), unix) << "normalising twice changes nothing";
}

TEST(NormalizeKeyText, AnyBytesAreHandled) {
  EXPECT_EQ(normalizeKeyText(""), "");
  EXPECT_EQ(normalizeKeyText("\n\n \t\n"), "");
  std::string binary;
  for (int i = 0; i < 4096; ++i) binary.push_back(static_cast<char>(i * 37));
  (void)normalizeKeyText(binary);
  const std::string huge(4 << 20, '=');
  EXPECT_EQ(normalizeKeyText(huge).size(), huge.size() + 2);
}

TEST(ExtractServerAddress, TakesTheHostOfTheFirstEndpointLine) {
  EXPECT_EQ(extractServerAddress("[Peer]\nEndpoint = vpn.example.net:51820\nEndpoint = second:1"), "vpn.example.net");
  EXPECT_EQ(extractServerAddress("Endpoint = 203.0.113.10"), "203.0.113.10");
  EXPECT_EQ(extractServerAddress("[Peer]\nPublicKey = x"), std::nullopt);
  EXPECT_EQ(extractServerAddress("endpoint = lower.case:1"), std::nullopt) << "the prefix is case-sensitive";
  EXPECT_EQ(extractServerAddress("Endpoint = "), std::nullopt);
}

TEST(ExtractServerAddress, ABracketedIPv6EndpointGivesItsFirstGroupAsItAlwaysHas) {
  EXPECT_EQ(extractServerAddress("Endpoint = [2001:db8::1]:51820"), "[2001");
}

}  // namespace
}  // namespace norvik
