#include "tunnel_helper/tunnel_key.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

namespace norvik::tunnel_helper {
namespace {

constexpr std::string_view kPrivate = "jBA55xcLAlLrUOQji5V5t0IDhYd+C6Rxk/cqp3msWuo=";
constexpr std::string_view kServer = "v/7M2+2OWnKiY1bBBRCZdonA03KacdWGweHDlBqeHIk=";
constexpr std::string_view kServer2 = "u7OuEZhmqFukk7d0RLNAQa3GlyjAarm0m0wQb4jWO+E=";
constexpr std::string_view kPreshared = "ePy+5bRjPpKIPIq5M/XmEqVmhaIPXFEHBbv4xdFnLgw=";

std::string sampleKeyText(std::string_view interfaceExtra = "", std::string_view peerExtra = "",
                          std::string_view endpoint = "203.0.113.10:51820") {
  return fmt::format(
      "[Interface]\nPrivateKey = {}\nAddress = 10.66.1.2/32\n{}\n[Peer]\nPublicKey = {}\nAllowedIPs = 0.0.0.0/0\n"
      "Endpoint = {}\n{}\n",
      kPrivate, interfaceExtra, kServer, endpoint, peerExtra);
}

std::string errorOf(std::string_view text) {
  auto parsed = parseTunnelKey(text);
  EXPECT_FALSE(parsed.has_value()) << text;
  return parsed ? std::string() : parsed.error().message;
}

TEST(TunnelKeyTest, ReadsEveryKeyTheBackendSends) {
  const std::string text = fmt::format(
      "# issued for device 1A2B\n"
      "[interface]\r\n"
      "privatekey = {}\r\n"
      "Address = 10.66.1.2/32, fd00:66::2/128\n"
      "DNS = 1.1.1.1, 2606:4700:4700::1111, corp.example\n"
      "MTU = 1380\n"
      "PostUp = iptables -A FORWARD  # never run\n"
      "[Peer]\n"
      "PublicKey = {}\n"
      "PresharedKey = {}\n"
      "AllowedIPs = 0.0.0.0/0, ::/0, 10.1.2.3/8\n"
      "Endpoint = [2001:db8::10]:51820\n"
      "PersistentKeepalive = 25\n",
      kPrivate, kServer, kPreshared);
  auto key = parseTunnelKey(text);
  ASSERT_TRUE(key.has_value()) << key.error().message;
  ASSERT_EQ(key->interface.addresses.size(), 2u);
  EXPECT_EQ(key->interface.addresses[0].toString(), "10.66.1.2/32");
  EXPECT_EQ(key->interface.addresses[1].toString(), "fd00:66::2/128");
  ASSERT_EQ(key->interface.dns.size(), 2u);
  EXPECT_EQ(key->interface.dns[1].toString(), "2606:4700:4700::1111");
  EXPECT_EQ(key->interface.dnsSearch, std::vector<std::string>{"corp.example"});
  EXPECT_EQ(key->interface.mtu, 1380);
  EXPECT_EQ(key->ignoredKeys, std::vector<std::string>{"postup"});
  ASSERT_EQ(key->peers.size(), 1u);
  const TunnelPeer& peer = key->peers[0];
  EXPECT_TRUE(peer.presharedKey.has_value());
  EXPECT_EQ(peer.persistentKeepalive, 25);
  EXPECT_EQ(peer.endpoint, (TunnelEndpoint{"2001:db8::10", 51820}));
  EXPECT_EQ(peer.endpoint.toString(), "[2001:db8::10]:51820");
  ASSERT_EQ(peer.allowedIPs.size(), 3u);
  EXPECT_EQ(peer.allowedIPs[2].toString(), "10.0.0.0/8") << "host bits cleared, as a route needs them";
  EXPECT_EQ(peer.line, 8);
}

TEST(TunnelKeyTest, EndpointsTakeNamesAddressesAndBracketedIPv6Only) {
  EXPECT_EQ(parseEndpoint("vpn.example.com:443"), (TunnelEndpoint{"vpn.example.com", 443}));
  EXPECT_EQ(parseEndpoint("198.51.100.7:51820"), (TunnelEndpoint{"198.51.100.7", 51820}));
  EXPECT_EQ(parseEndpoint("[::1]:1"), (TunnelEndpoint{"::1", 1}));
  for (std::string_view bad : {"2001:db8::1:51820", "[198.51.100.7]:51820", "host", "host:", "host:0", "host:65536",
                               "[2001:db8::1]51820", "-bad-.example:1", "bad_name:1", "10.0.0.300:1", "[::1:5"}) {
    EXPECT_FALSE(parseEndpoint(bad).has_value()) << bad;
  }
}

TEST(TunnelKeyTest, MissingPiecesAreNamedWithTheirSection) {
  EXPECT_EQ(errorOf(""), "в ключе нет раздела [Interface]");
  EXPECT_EQ(errorOf(fmt::format("[Interface]\nAddress = 10.0.0.2/32\n[Peer]\nPublicKey = {}\n", kServer)),
            "строка 3: в [Peer] нет AllowedIPs");
  EXPECT_EQ(errorOf(fmt::format("[Interface]\nAddress = 10.0.0.2/32\n[Peer]\nPublicKey = {}\nAllowedIPs = 0.0.0.0/0\n"
                                "Endpoint = 1.2.3.4:5\n",
                                kServer)),
            "строка 1: в [Interface] нет PrivateKey");
  EXPECT_EQ(errorOf(fmt::format("[Interface]\nPrivateKey = {}\nAddress = 10.0.0.2/32\n", kPrivate)),
            "в ключе нет раздела [Peer]");
  EXPECT_EQ(errorOf(fmt::format("[Interface]\nPrivateKey = {}\nAddress = 10.0.0.2/32\n[Peer]\nAllowedIPs = 0.0.0.0/0\n",
                                kPrivate)),
            "строка 4: в [Peer] нет PublicKey");
  EXPECT_EQ(errorOf(sampleKeyText().replace(sampleKeyText().find("Endpoint"), 29, "")),
            "строка 5: в [Peer] нет Endpoint");
}

TEST(TunnelKeyTest, BadValuesQuoteTheLineButNeverASecret) {
  const std::string badPrivate = "[Interface]\nPrivateKey = c2VjcmV0LWJ1dC10b28tc2hvcnQ=\n";
  const std::string privateError = errorOf(badPrivate);
  EXPECT_EQ(privateError, "строка 2: «PrivateKey = …» — не ключ WireGuard (нужны 32 байта в Base64)");
  EXPECT_EQ(privateError.find("c2Vjc"), std::string::npos);

  // One byte too many, the right length without padding, characters outside Base64.
  for (std::string_view key : {"jBA55xcLAlLrUOQji5V5t0IDhYd+C6Rxk/cqp3msWuoA",
                               "jBA55xcLAlLrUOQji5V5t0IDhYd+C6Rxk/cqp3msWu!=", "jBA55xcLAlLrUOQji5V5t0IDhYd"}) {
    const std::string text = sampleKeyText("", fmt::format("PresharedKey = {}", key));
    const std::string error = errorOf(text);
    EXPECT_NE(error.find("«PresharedKey = …»"), std::string::npos) << error;
    EXPECT_EQ(error.find(key), std::string::npos) << error;
  }
  EXPECT_EQ(errorOf(sampleKeyText("", "", "[2001:db8::1:51820")),
            "строка 8: «Endpoint = [2001:db8::1:51820» — ожидается «адрес:порт», «имя:порт» или «[IPv6]:порт» с портом "
            "от 1 до 65535");
  EXPECT_EQ(errorOf(sampleKeyText("Address = 10.0.0.2/33")),
            "строка 4: «Address = 10.0.0.2/33» — не адрес с длиной префикса: «10.0.0.2/33»");
  EXPECT_EQ(errorOf(sampleKeyText("DNS = 1.1.1.1, not a name")),
            "строка 4: «DNS = 1.1.1.1, not a name» — не адрес DNS-сервера и не домен поиска: «not a name»");
  EXPECT_EQ(errorOf(sampleKeyText("", "PersistentKeepalive = soon")),
            "строка 9: «PersistentKeepalive = soon» — интервал должен быть от 0 до 65535 секунд или off");
}

TEST(TunnelKeyTest, AbsurdMtusAreRefusedAndIPv6NeedsItsMinimum) {
  for (std::string_view mtu : {"0", "575", "9001", "-1400", "1e3", "99999999999", "1400.5"}) {
    EXPECT_NE(errorOf(sampleKeyText(fmt::format("MTU = {}", mtu))).find("MTU должен быть от 576 до 9000"),
              std::string::npos)
        << mtu;
  }
  EXPECT_TRUE(parseTunnelKey(sampleKeyText("MTU = 576")).has_value());
  EXPECT_TRUE(parseTunnelKey(sampleKeyText("MTU = 9000")).has_value());
  EXPECT_EQ(errorOf(sampleKeyText("Address = fd00::2/128\nMTU = 1200")),
            "строка 1: MTU 1200 меньше 1280, без которых IPv6-адрес интерфейса не работает");
}

TEST(TunnelKeyTest, StructureMistakesAreRefusedWhereTheyHappen) {
  EXPECT_EQ(errorOf("PrivateKey = x\n"), "строка 1: «PrivateKey = …» — строка вне раздела [Interface] или [Peer]");
  EXPECT_EQ(errorOf("[Interface\n"), "строка 1: «[Interface» — заголовок раздела без «]»");
  EXPECT_EQ(errorOf("[Wireguard]\n"),
            "строка 1: «[Wireguard]» — неизвестный раздел (ожидается [Interface] или [Peer])");
  EXPECT_EQ(errorOf(sampleKeyText("[Interface]")), "строка 4: «[Interface]» — второй раздел [Interface]");
  EXPECT_EQ(errorOf(sampleKeyText("MTU = 1400\nMTU = 1300")), "строка 5: «MTU = 1300» — ключ повторяется");
  EXPECT_EQ(errorOf(sampleKeyText("Adress = 10.0.0.3/32")),
            "строка 4: «Adress = 10.0.0.3/32» — неизвестный ключ в разделе [Interface]");
  EXPECT_EQ(errorOf(sampleKeyText("Address")), "строка 4: «Address» — ожидается «Ключ = Значение»");
  EXPECT_EQ(errorOf(sampleKeyText("Address =")), "строка 4: «Address =» — пустое значение");
  // The same server twice would make the device drop one of them silently.
  EXPECT_EQ(
      errorOf(sampleKeyText("", fmt::format("[Peer]\nPublicKey = {}", kServer))),
      "строка 10: «PublicKey = v/7M2+2OWnKiY1bBBRCZdonA03KacdWGweHDlBqeHIk=» — этот PublicKey уже есть у другого пира");
  // Control bytes are not copied into a message that ends up on screen and in the log.
  EXPECT_EQ(errorOf("\x1b[31m\n"), "строка 1: «?[31m» — ожидается «Ключ = Значение»");
}

TEST(TunnelKeyTest, BoundsKeepHostileKeysCheap) {
  std::string peers;
  const std::vector<std::string> keys = {std::string(kServer), std::string(kServer2)};
  for (std::size_t i = 0; i < kMaxPeers + 1; ++i) {
    std::string key(43, 'A');
    key[0] = static_cast<char>('A' + i % 26);
    key[1] = static_cast<char>('A' + i / 26);
    peers += fmt::format("[Peer]\nPublicKey = {}=\nAllowedIPs = 10.{}.0.0/16\nEndpoint = 198.51.100.7:51820\n", key, i);
  }
  const std::string many = fmt::format("[Interface]\nPrivateKey = {}\nAddress = 10.0.0.2/32\n{}", kPrivate, peers);
  EXPECT_NE(errorOf(many).find("пиров больше 16"), std::string::npos);
  // Sixteen peers are fine.
  const std::string sixteen = many.substr(0, many.rfind("[Peer]"));
  auto parsed = parseTunnelKey(sixteen);
  ASSERT_TRUE(parsed.has_value()) << parsed.error().message;
  EXPECT_EQ(parsed->peers.size(), kMaxPeers);

  EXPECT_EQ(errorOf(std::string(kMaxKeyTextBytes + 1, '#')), "текст ключа длиннее 65536 байт");
  std::string addresses = "Address = 10.0.0.1/32";
  for (int i = 2; i <= 17; ++i) addresses += fmt::format(", 10.0.0.{}/32", i);
  EXPECT_NE(errorOf(sampleKeyText(addresses)).find("адресов больше 16"), std::string::npos);
  // A long line is quoted only in part.
  const std::string longLine = "DNS = " + std::string(300, 'x');
  const std::string error = errorOf(sampleKeyText(longLine));
  EXPECT_LT(error.size(), 400u);
  EXPECT_NE(error.find("…»"), std::string::npos);
}

TEST(IpPrefixTest, ParsesStrictlyAndMasks) {
  EXPECT_EQ(IpPrefix::parse("10.1.2.3")->toString(), "10.1.2.3/32");
  EXPECT_EQ(IpPrefix::parse("2001:db8::1")->length, 128);
  EXPECT_EQ(IpPrefix::parse("10.1.2.3/12")->masked().toString(), "10.0.0.0/12");
  EXPECT_EQ(IpPrefix::parse("2001:db8:ffff::/33")->masked().toString(), "2001:db8:8000::/33");
  for (std::string_view bad : {"", "/8", "10.0.0.0/", "10.0.0.0/-1", "10.0.0.0/0x8", "::/129", "10.0.0.0/8/8",
                               "10.0.0.0 /8", "fe80::1%eth0"}) {
    EXPECT_FALSE(IpPrefix::parse(bad).has_value()) << bad;
  }
  const auto net = *IpPrefix::parse("192.168.0.0/16");
  EXPECT_TRUE(net.contains(*IpAddress::parse("192.168.44.1")));
  EXPECT_FALSE(net.contains(*IpAddress::parse("192.169.0.1")));
  EXPECT_FALSE(net.contains(*IpAddress::parse("::ffff:192.168.0.1")));
}

}  // namespace
}  // namespace norvik::tunnel_helper
