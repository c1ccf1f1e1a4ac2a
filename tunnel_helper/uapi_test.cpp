#include "tunnel_helper/uapi.h"

#include <gtest/gtest.h>

#include "testing/fake_device_socket.h"
#include "testing/temp_dir.h"

namespace norvik::tunnel_helper {
namespace {

using testing::FakeDeviceSocket;

using namespace std::chrono_literals;

constexpr std::string_view kUapiKey =
    "[Interface]\nPrivateKey = jBA55xcLAlLrUOQji5V5t0IDhYd+C6Rxk/cqp3msWuo=\nAddress = 10.66.1.2/32\nListenPort = 0\n"
    "[Peer]\nPublicKey = v/7M2+2OWnKiY1bBBRCZdonA03KacdWGweHDlBqeHIk=\n"
    "PresharedKey = ePy+5bRjPpKIPIq5M/XmEqVmhaIPXFEHBbv4xdFnLgw=\nAllowedIPs = 0.0.0.0/0, ::/0\n"
    "Endpoint = vpn.example.com:51820\nPersistentKeepalive = 25\n"
    "[Peer]\nPublicKey = u7OuEZhmqFukk7d0RLNAQa3GlyjAarm0m0wQb4jWO+E=\nAllowedIPs = 10.9.0.0/16\n"
    "Endpoint = [2001:db8::7]:443\n";

constexpr std::string_view kServerHex = "bffeccdbed8e5a72a26356c10510997689c0d3729a71d586c1e1c3941a9e1c89";

TEST(UapiTest, TheSetRequestCarriesTheWholeConfigurationInHex) {
  auto key = parseTunnelKey(kUapiKey);
  ASSERT_TRUE(key.has_value()) << key.error().message;
  const std::string request = uapiSetRequest(
      *key, {{*IpAddress::parse("198.51.100.7"), 51820}, {*IpAddress::parse("2001:db8::7"), 443}}, 0x6E76);
  EXPECT_EQ(request,
            "set=1\n"
            "private_key=8c1039e7170b0252eb50e4238b9579b7420385877e0ba47193f72aa779ac5aea\n"
            "listen_port=0\n"
            "fwmark=28278\n"
            "replace_peers=true\n"
            "public_key=bffeccdbed8e5a72a26356c10510997689c0d3729a71d586c1e1c3941a9e1c89\n"
            "preshared_key=78fcbee5b4633e92883c8ab933f5e612a56685a20f5c510705bbf8c5d1672e0c\n"
            "endpoint=198.51.100.7:51820\n"
            "persistent_keepalive_interval=25\n"
            "replace_allowed_ips=true\n"
            "allowed_ip=0.0.0.0/0\n"
            "allowed_ip=::/0\n"
            "public_key=bbb3ae119866a85ba493b77444b34041adc69728c06ab9b49b4c106f88d63be1\n"
            "endpoint=[2001:db8::7]:443\n"
            "replace_allowed_ips=true\n"
            "allowed_ip=10.9.0.0/16\n"
            "\n");
}

TEST(UapiTest, TheGetAnswerGivesHandshakeAndBytesOfAllPeers) {
  const std::string answer =
      "private_key=8c1039e7170b0252eb50e4238b9579b7420385877e0ba47193f72aa779ac5aea\n"
      "listen_port=40211\n"
      "fwmark=28278\n"
      "public_key=" +
      std::string(kServerHex) +
      "\n"
      "endpoint=198.51.100.7:51820\n"
      "last_handshake_time_sec=1700000000\n"
      "last_handshake_time_nsec=500000000\n"
      "tx_bytes=1000\n"
      "rx_bytes=2000\n"
      "persistent_keepalive_interval=25\n"
      "allowed_ip=0.0.0.0/0\n"
      "public_key=bbb3ae119866a85ba493b77444b34041adc69728c06ab9b49b4c106f88d63be1\n"
      "last_handshake_time_sec=0\n"
      "last_handshake_time_nsec=0\n"
      "tx_bytes=18446744073709551615\n"
      "rx_bytes=5\n"
      "protocol_version=1\n"
      "errno=0\n\n";
  auto state = parseUapiGetResponse(answer);
  ASSERT_TRUE(state.has_value()) << state.error();
  EXPECT_EQ(state->listenPort, 40211);
  ASSERT_EQ(state->peers.size(), 2u);
  EXPECT_FALSE(state->peers[1].lastHandshake.has_value()) << "zero means no handshake yet";
  EXPECT_EQ(state->lastHandshake(), std::chrono::system_clock::time_point(1700000000s + 500ms));
  EXPECT_EQ(state->receivedBytes(), 2005u);
  EXPECT_EQ(state->peers[1].sentBytes, 18446744073709551615u);

  auto fresh = parseUapiGetResponse("private_key=00\nlisten_port=1\nerrno=0\n\n");
  ASSERT_TRUE(fresh.has_value());
  EXPECT_TRUE(fresh->peers.empty());
  EXPECT_FALSE(fresh->lastHandshake().has_value());
}

TEST(UapiTest, BrokenAnswersAreErrorsThatNeverQuoteKeys) {
  EXPECT_EQ(parseUapiGetResponse("errno=19\n\n").error(), "устройство ответило errno=19");
  EXPECT_EQ(parseUapiGetResponse("listen_port=1\n").error(), "ответ устройства оборван (нет errno)");
  EXPECT_EQ(parseUapiGetResponse("listen_port=1\nerrno=0").error(), "ответ устройства оборван (нет errno)");
  EXPECT_EQ(parseUapiGetResponse("garbage\nerrno=0\n\n").error(), "ответ устройства не читается: «garbage»");
  EXPECT_EQ(parseUapiGetResponse("errno=x\n\n").error(), "ответ устройства не читается: «errno=x»");
  EXPECT_EQ(parseUapiGetResponse("public_key=" + std::string(kServerHex) + "\nrx_bytes=-3\nerrno=0\n\n").error(),
            "ответ устройства: rx_bytes=«-3» — не число");
  EXPECT_EQ(parseUapiGetResponse("public_key=zz\nerrno=0\n\n").error(), "ответ устройства: public_key — не ключ");
  // Times that do not fit the clock are refused rather than wrapped.
  EXPECT_EQ(parseUapiGetResponse("public_key=" + std::string(kServerHex) +
                                 "\nlast_handshake_time_sec=22170000000\nerrno=0\n\n")
                .error(),
            "ответ устройства: last_handshake_time_sec=«22170000000» — не число");
  EXPECT_FALSE(parseUapiGetResponse("public_key=" + std::string(kServerHex) +
                                    "\nlast_handshake_time_nsec=1000000000\nerrno=0\n\n")
                   .has_value());

  EXPECT_TRUE(parseUapiSetResponse("errno=0\n\n").has_value());
  EXPECT_EQ(parseUapiSetResponse("errno=22\n\n").error(), "устройство отвергло настройки: errno=22");
  EXPECT_FALSE(parseUapiSetResponse("").has_value());
}

TEST(UapiTest, AnExchangeSendsTheRequestAndReadsToTheEndOfTheAnswer) {
  testing::TempDir dir;
  std::string answer;
  {
    FakeDeviceSocket device(dir / "wg.sock", "listen_port=5\nerrno=0\n\n");
    auto got = uapiExchange(dir / "wg.sock", "get=1\n\n", 2s);
    ASSERT_TRUE(got.has_value()) << got.error().message;
    answer = *got;
  }
  EXPECT_EQ(answer, "listen_port=5\nerrno=0\n\n");

  // A device that never answers is given up after the time limit, not waited on for ever.
  std::filesystem::remove(dir / "wg.sock");
  FakeDeviceSocket silent(dir / "wg.sock", "", /*answerAtAll=*/false);
  auto timedOut = uapiExchange(dir / "wg.sock", "get=1\n\n", 50ms);
  ASSERT_FALSE(timedOut.has_value());
  EXPECT_EQ(timedOut.error().code, ETIMEDOUT);

  EXPECT_FALSE(uapiExchange(dir / "nothing.sock", "get=1\n\n", 50ms).has_value());
}

}  // namespace
}  // namespace norvik::tunnel_helper
