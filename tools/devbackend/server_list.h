#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace norvik::devbackend {

// The client addresses of one server: an IPv4 network ("10.66.1.0/24"). Hosts are handed out
// from the network address + 2 on (+1 is the server's own tunnel address).
class AddressPool {
 public:
  [[nodiscard]] static std::expected<AddressPool, std::string> parse(std::string_view cidr);

  // The index-th client address (0 is the first), or nothing when the pool has no such host.
  [[nodiscard]] std::optional<std::string> clientAddress(std::uint32_t index) const;
  // Where an address lies in the pool, or nothing when it is not one of its client addresses.
  [[nodiscard]] std::optional<std::uint32_t> indexOf(std::string_view address) const;
  [[nodiscard]] std::uint32_t capacity() const;
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
  std::uint32_t network_ = 0;
  int prefix_ = 0;
};

// One VPN server a device can be placed on.
struct VpnServer {
  std::string name;       // stable identifier, also shown as "serverName"
  std::string location;   // shown as "location"
  std::string endpoint;   // "host:port" the client dials
  std::string publicKey;  // the server's WireGuard public key; empty: generated and kept in the state
  std::string allowedIPs = "0.0.0.0/0, ::/0";
  std::string addressPool = "10.66.1.0/24";
  std::string dns = "1.1.1.1, 1.0.0.1";
  // The configuration socket of a userspace WireGuard device that plays this server (development
  // and the demo): every key issued on the server is added to it as a peer. Empty: none.
  std::string uapiSocket;

  // The host of the endpoint, as the client extracts it ("key_ip", "keyIP").
  [[nodiscard]] std::string host() const;
};

// The built-in list: two made-up servers on documentation addresses, keys generated at first start.
[[nodiscard]] std::vector<VpnServer> defaultServers();

// Reads a server list: {"servers": [ … ]} or a bare array of objects with "name", "endpoint"
// (required), "location", "public_key", "allowed_ips", "address_pool", "dns", "uapi_socket". The error names the
// entry and the field and quotes the bad value; names must be unique and at least one server given.
[[nodiscard]] std::expected<std::vector<VpnServer>, std::string> parseServerList(std::string_view text);

}  // namespace norvik::devbackend
