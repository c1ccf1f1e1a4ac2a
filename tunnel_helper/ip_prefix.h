#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <sys/socket.h>

namespace norvik::tunnel_helper {

// An IPv4 or IPv6 address as the kernel takes it: the family and the address bytes in network
// order (the first 4 bytes for IPv4).
struct IpAddress {
  int family = AF_INET;
  std::array<std::uint8_t, 16> bytes{};

  // Dotted IPv4 or textual IPv6 (no brackets, no zone); nothing for anything else.
  [[nodiscard]] static std::optional<IpAddress> parse(std::string_view text);
  [[nodiscard]] std::string toString() const;
  [[nodiscard]] bool isV4() const { return family == AF_INET; }
  [[nodiscard]] int byteLength() const { return isV4() ? 4 : 16; }
  [[nodiscard]] int bitLength() const { return isV4() ? 32 : 128; }

  auto operator<=>(const IpAddress&) const = default;
};

// An address with a prefix length ("10.0.0.0/8", "2001:db8::/32"). A bare address is a host
// prefix (/32 or /128).
struct IpPrefix {
  IpAddress address;
  int length = 32;

  // Strict: an address, optionally "/" and a decimal length within the family's range.
  [[nodiscard]] static std::optional<IpPrefix> parse(std::string_view text);
  [[nodiscard]] static IpPrefix host(const IpAddress& address) { return {address, address.bitLength()}; }
  [[nodiscard]] std::string toString() const;
  // The same prefix with the host bits cleared ("10.1.2.3/8" → "10.0.0.0/8"), as routes need it.
  [[nodiscard]] IpPrefix masked() const;
  [[nodiscard]] bool contains(const IpAddress& other) const;
  [[nodiscard]] bool isDefault() const { return length == 0; }

  auto operator<=>(const IpPrefix&) const = default;
};

}  // namespace norvik::tunnel_helper
