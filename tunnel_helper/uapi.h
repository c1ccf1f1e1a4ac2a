#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "tunnel_helper/ip_prefix.h"
#include "tunnel_helper/tunnel_key.h"

namespace norvik::tunnel_helper {

// WireGuard's configuration protocol: "key=value" lines over the device's UNIX socket, a request
// ended by an empty line, an answer ended by "errno=N" and an empty line.

// The peer's endpoint once resolved: an address the device can send to.
struct ResolvedEndpoint {
  IpAddress address;
  std::uint16_t port = 0;
  [[nodiscard]] std::string toString() const;  // "1.2.3.4:51820", "[2001:db8::1]:51820"
};

// The whole device configuration as one "set" request: private key, port, firewall mark, and the
// peers, replacing whatever the device had. `endpoints` holds one address per peer of `key`.
[[nodiscard]] std::string uapiSetRequest(const TunnelKey& key, const std::vector<ResolvedEndpoint>& endpoints,
                                         std::uint32_t firewallMark);

// What the device reports of one peer.
struct PeerState {
  WireGuardKey publicKey{};
  std::optional<std::chrono::system_clock::time_point> lastHandshake{};  // none before the first
  std::uint64_t receivedBytes = 0;
  std::uint64_t sentBytes = 0;
};

struct DeviceState {
  std::optional<std::uint16_t> listenPort;
  std::vector<PeerState> peers;

  // The latest handshake of any peer, and the bytes of all peers.
  [[nodiscard]] std::optional<std::chrono::system_clock::time_point> lastHandshake() const;
  [[nodiscard]] std::uint64_t receivedBytes() const;
  [[nodiscard]] std::uint64_t sentBytes() const;
};

// Reads the answer to "get=1". A non-zero errno, a truncated answer or a malformed line is an error
// that quotes it (key material is never quoted).
[[nodiscard]] std::expected<DeviceState, std::string> parseUapiGetResponse(std::string_view answer);
// Reads the answer to a "set=1" request: only "errno=0" is success.
[[nodiscard]] std::expected<void, std::string> parseUapiSetResponse(std::string_view answer);

// One request and its answer over the device's socket. Blocking, bounded by `timeout`.
[[nodiscard]] std::expected<std::string, Error> uapiExchange(const std::filesystem::path& socket,
                                                             std::string_view request,
                                                             std::chrono::milliseconds timeout);

}  // namespace norvik::tunnel_helper
