#include "tools/devbackend/server_list.h"

#include <arpa/inet.h>
#include <charconv>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/devbackend/wireguard_keys.h"

namespace norvik::devbackend {
namespace {

std::string quoted(const nlohmann::json& value) {
  std::string text = value.dump();
  if (text.size() > 80) text = text.substr(0, 80) + "…";
  return text;
}

std::optional<std::uint32_t> parseIPv4(std::string_view text) {
  in_addr address{};
  if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::string formatIPv4(std::uint32_t value) {
  return fmt::format("{}.{}.{}.{}", value >> 24, (value >> 16) & 255, (value >> 8) & 255, value & 255);
}

// "host:port" with a port in 1..65535; a bracketed IPv6 host is accepted.
bool isEndpoint(std::string_view text) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == text.size()) return false;
  int port = 0;
  const auto digits = text.substr(colon + 1);
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  return ec == std::errc{} && end == digits.data() + digits.size() && port > 0 && port <= 65535;
}

std::expected<VpnServer, std::string> parseServer(const nlohmann::json& entry, std::size_t index) {
  const std::string where = fmt::format("server {}", index + 1);
  if (!entry.is_object()) return std::unexpected(fmt::format("{}: expected an object, found {}", where, quoted(entry)));
  VpnServer server;
  struct Field {
    const char* key;
    std::string* target;
    bool required;
  };
  const Field fields[] = {
      {"name", &server.name, true},
      {"endpoint", &server.endpoint, true},
      {"location", &server.location, false},
      {"public_key", &server.publicKey, false},
      {"allowed_ips", &server.allowedIPs, false},
      {"address_pool", &server.addressPool, false},
      {"dns", &server.dns, false},
      {"uapi_socket", &server.uapiSocket, false},
  };
  for (const auto& field : fields) {
    auto it = entry.find(field.key);
    if (it == entry.end() || it->is_null()) {
      if (field.required) return std::unexpected(fmt::format("{}: \"{}\" is missing", where, field.key));
      continue;
    }
    if (!it->is_string()) {
      return std::unexpected(fmt::format("{}: \"{}\" must be a string, found {}", where, field.key, quoted(*it)));
    }
    *field.target = it->get<std::string>();
  }
  if (server.name.empty()) return std::unexpected(fmt::format("{}: \"name\" is empty", where));
  if (server.location.empty()) server.location = server.name;
  if (!isEndpoint(server.endpoint)) {
    return std::unexpected(fmt::format(R"({}: "endpoint" must be host:port, found "{}")", where, server.endpoint));
  }
  if (!server.publicKey.empty() && !isWireGuardKey(server.publicKey)) {
    return std::unexpected(
        fmt::format(R"({}: "public_key" must be the Base64 of 32 bytes, found "{}")", where, server.publicKey));
  }
  if (auto pool = AddressPool::parse(server.addressPool); !pool) {
    return std::unexpected(fmt::format("{}: \"address_pool\": {}", where, pool.error()));
  }
  return server;
}

}  // namespace

std::expected<AddressPool, std::string> AddressPool::parse(std::string_view cidr) {
  const auto slash = cidr.find('/');
  auto fail = [&] {
    return std::unexpected(
        fmt::format("expected an IPv4 network such as 10.66.1.0/24 with a prefix of 8 to 30, found \"{}\"", cidr));
  };
  if (slash == std::string_view::npos) return fail();
  const auto network = parseIPv4(cidr.substr(0, slash));
  int prefix = -1;
  const auto digits = cidr.substr(slash + 1);
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), prefix);
  if (!network || ec != std::errc{} || end != digits.data() + digits.size() || prefix < 8 || prefix > 30) return fail();
  AddressPool pool;
  pool.text_ = std::string(cidr);
  pool.prefix_ = prefix;
  pool.network_ = *network & (0xFFFFFFFFu << (32 - prefix));
  return pool;
}

std::uint32_t AddressPool::capacity() const {
  // Minus the network address, the server's own address and the broadcast address.
  return (1u << (32 - prefix_)) - 3;
}

std::optional<std::string> AddressPool::clientAddress(std::uint32_t index) const {
  if (index >= capacity()) return std::nullopt;
  return formatIPv4(network_ + 2 + index);
}

std::optional<std::uint32_t> AddressPool::indexOf(std::string_view address) const {
  const auto value = parseIPv4(address);
  if (!value || *value < network_ + 2) return std::nullopt;
  const std::uint32_t index = *value - network_ - 2;
  if (index >= capacity()) return std::nullopt;
  return index;
}

std::string VpnServer::host() const {
  // The same rule the client applies to the Endpoint line: everything before the first ":".
  return endpoint.substr(0, endpoint.find(':'));
}

std::vector<VpnServer> defaultServers() {
  VpnServer first;
  first.name = "nl-ams-1";
  first.location = "Нидерланды, Амстердам";
  first.endpoint = "203.0.113.10:51820";
  first.addressPool = "10.66.1.0/24";
  VpnServer second;
  second.name = "de-fra-1";
  second.location = "Германия, Франкфурт";
  second.endpoint = "198.51.100.7:51820";
  second.addressPool = "10.66.2.0/24";
  return {first, second};
}

std::expected<std::vector<VpnServer>, std::string> parseServerList(std::string_view text) {
  const auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return std::unexpected("not valid JSON");
  const nlohmann::json* list = &json;
  if (json.is_object()) {
    auto it = json.find("servers");
    if (it == json.end()) return std::unexpected("expected {\"servers\": [ … ]} or an array of servers");
    list = &*it;
  }
  if (!list->is_array())
    return std::unexpected(fmt::format("the server list must be an array, found {}", quoted(*list)));
  if (list->empty()) return std::unexpected("the server list is empty");

  std::vector<VpnServer> servers;
  std::set<std::string> names;
  for (std::size_t i = 0; i < list->size(); ++i) {
    auto server = parseServer((*list)[i], i);
    if (!server) return std::unexpected(server.error());
    if (!names.insert(server->name).second) {
      return std::unexpected(fmt::format("server {}: the name \"{}\" is used twice", i + 1, server->name));
    }
    servers.push_back(std::move(*server));
  }
  return servers;
}

}  // namespace norvik::devbackend
