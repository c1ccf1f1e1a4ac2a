#pragma once

#include <array>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tunnel_helper/ip_prefix.h"

namespace norvik::tunnel_helper {

// A Curve25519 key as WireGuard uses it: 32 bytes (44 characters of Base64 in the key text).
using WireGuardKey = std::array<std::uint8_t, 32>;

// Where a peer is reached: a host name or an address, and a port.
struct TunnelEndpoint {
  std::string host;  // a name or an address, without brackets
  std::uint16_t port = 0;

  // "host:port", with an IPv6 address in brackets.
  [[nodiscard]] std::string toString() const;
  bool operator==(const TunnelEndpoint&) const = default;
};

struct TunnelPeer {
  WireGuardKey publicKey{};
  std::optional<WireGuardKey> presharedKey;
  std::vector<IpPrefix> allowedIPs;
  TunnelEndpoint endpoint;
  std::optional<int> persistentKeepalive;  // seconds, 0 = off
  int line = 0;                            // where its section starts, for later messages
};

struct TunnelInterface {
  WireGuardKey privateKey{};
  std::vector<IpPrefix> addresses;
  std::vector<IpAddress> dns;
  std::vector<std::string> dnsSearch;  // the non-address entries of DNS
  std::optional<int> mtu;
  std::optional<std::uint16_t> listenPort;
};

// The key text as the tunnel uses it.
struct TunnelKey {
  TunnelInterface interface;
  std::vector<TunnelPeer> peers;
  // Keys of other WireGuard tools that the tunnel accepts but does not act on (scripts, Table,
  // SaveConfig, FwMark): the tunnel never runs scripts and keeps its own routing table.
  std::vector<std::string> ignoredKeys;
};

// A refusal: the 1-based line it concerns (0 for the text as a whole) and the message, which
// quotes the offending line — except the values of PrivateKey and PresharedKey, which are secrets
// and never quoted.
struct KeyTextError {
  int line = 0;
  std::string message;
};

// Bounds that keep a hostile key text from making the tunnel do absurd amounts of work.
inline constexpr std::size_t kMaxKeyTextBytes = 64 * 1024;
inline constexpr std::size_t kMaxPeers = 16;
inline constexpr std::size_t kMaxAddresses = 16;
inline constexpr std::size_t kMaxAllowedIPsPerPeer = 1024;
inline constexpr int kMinMtu = 576;  // the least every IPv4 host must take
inline constexpr int kMinMtuIPv6 = 1280;
inline constexpr int kMaxMtu = 9000;  // jumbo frames

// Reads the key text line by line, as WireGuard's tools do: "[Interface]" and "[Peer]" sections
// (names and keys in any letter case), `Key = Value` lines, "#" comments. Every value is checked
// (keys are 32-byte Base64, addresses and prefixes parse, the MTU is in range, the endpoint is a
// host and a port), required keys must be there (PrivateKey and Address; each peer's PublicKey,
// AllowedIPs and Endpoint), and the bounds above hold. Host names are not resolved here.
[[nodiscard]] std::expected<TunnelKey, KeyTextError> parseTunnelKey(std::string_view text);

// The endpoint syntax alone: "host:port", "1.2.3.4:port" or "[2001:db8::1]:port".
[[nodiscard]] std::optional<TunnelEndpoint> parseEndpoint(std::string_view text);

}  // namespace norvik::tunnel_helper
