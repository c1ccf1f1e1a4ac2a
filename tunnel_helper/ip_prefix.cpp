#include "tunnel_helper/ip_prefix.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>

namespace norvik::tunnel_helper {

std::optional<IpAddress> IpAddress::parse(std::string_view text) {
  // inet_pton wants a terminated string; nothing valid is longer than this.
  if (text.empty() || text.size() >= INET6_ADDRSTRLEN) return std::nullopt;
  char terminated[INET6_ADDRSTRLEN];
  std::memcpy(terminated, text.data(), text.size());
  terminated[text.size()] = '\0';
  IpAddress address;
  // One family is tried: lists of tens of thousands of ranges are read at every smart-mode start.
  const bool v6 = text.find(':') != std::string_view::npos;
  if (!v6 && ::inet_pton(AF_INET, terminated, address.bytes.data()) == 1) {
    address.family = AF_INET;
    return address;
  }
  if (v6 && ::inet_pton(AF_INET6, terminated, address.bytes.data()) == 1) {
    address.family = AF_INET6;
    return address;
  }
  return std::nullopt;
}

std::string IpAddress::toString() const {
  char buffer[INET6_ADDRSTRLEN] = {};
  ::inet_ntop(family, bytes.data(), buffer, sizeof buffer);
  return buffer;
}

std::optional<IpPrefix> IpPrefix::parse(std::string_view text) {
  const auto slash = text.find('/');
  auto address = IpAddress::parse(text.substr(0, slash));
  if (!address) return std::nullopt;
  if (slash == std::string_view::npos) return host(*address);
  const std::string_view digits = text.substr(slash + 1);
  if (digits.empty() || digits.size() > 3) return std::nullopt;
  int length = -1;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), length);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  if (length < 0 || length > address->bitLength()) return std::nullopt;
  return IpPrefix{*address, length};
}

std::string IpPrefix::toString() const { return address.toString() + "/" + std::to_string(length); }

IpPrefix IpPrefix::masked() const {
  IpPrefix out = *this;
  for (int i = 0; i < address.byteLength(); ++i) {
    const int keep = std::clamp(length - i * 8, 0, 8);
    const auto mask = static_cast<std::uint8_t>(keep == 0 ? 0 : 0xFF << (8 - keep));
    out.address.bytes[static_cast<std::size_t>(i)] &= mask;
  }
  return out;
}

bool IpPrefix::contains(const IpAddress& other) const {
  if (other.family != address.family) return false;
  return IpPrefix{other, length}.masked().address == masked().address;
}

}  // namespace norvik::tunnel_helper
