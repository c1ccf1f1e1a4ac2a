#include "tunnel_helper/tunnel_key.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <set>

#include <fmt/format.h>

#include "platform/crypto.h"

namespace norvik::tunnel_helper {
namespace {

constexpr std::size_t kMaxQuoted = 120;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view trim(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

std::string lower(std::string_view text) {
  std::string out(text);
  std::ranges::transform(out, out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

bool isSecretKey(std::string_view lowerName) { return lowerName == "privatekey" || lowerName == "presharedkey"; }

// The line as it may be shown: control bytes replaced, long lines cut, secrets hidden.
std::string quoteLine(std::string_view line) {
  const auto eq = line.find('=');
  if (eq != std::string_view::npos && isSecretKey(lower(trim(line.substr(0, eq))))) {
    return fmt::format("«{} = …»", trim(line.substr(0, eq)));
  }
  std::string shown;
  for (char c : line.substr(0, kMaxQuoted)) shown += (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) ? '?' : c;
  if (line.size() > kMaxQuoted) shown += "…";
  return "«" + shown + "»";
}

// One list item inside a message: short, and without control bytes.
std::string clip(std::string_view item) {
  std::string shown;
  for (char c : item.substr(0, 64)) shown += (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) ? '?' : c;
  if (item.size() > 64) shown += "…";
  return shown;
}

std::vector<std::string_view> splitList(std::string_view value) {
  std::vector<std::string_view> items;
  std::size_t start = 0;
  while (start <= value.size()) {
    const auto comma = value.find(',', start);
    items.push_back(
        trim(value.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start)));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return items;
}

std::optional<long long> parseDecimal(std::string_view text) {
  if (text.empty() || text.size() > 9) return std::nullopt;
  long long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<WireGuardKey> decodeKey(std::string_view value) {
  if (value.size() != 44 || value.back() != '=') return std::nullopt;
  auto bytes = base64Decode(value);
  if (!bytes || bytes->size() != 32) return std::nullopt;
  WireGuardKey key{};
  std::ranges::copy(*bytes, key.begin());
  return key;
}

bool isHostName(std::string_view host) {
  if (host.empty() || host.size() > 253) return false;
  std::size_t label = 0;
  for (std::size_t i = 0; i <= host.size(); ++i) {
    if (i == host.size() || host[i] == '.') {
      if (label == 0 || label > 63) return false;
      if (host[i - 1] == '-' || host[i - label] == '-') return false;
      label = 0;
      continue;
    }
    const char c = host[i];
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') return false;
    ++label;
  }
  // A numeric last label is a mistyped address, not a name.
  const std::string_view last = host.substr(host.rfind('.') == std::string_view::npos ? 0 : host.rfind('.') + 1);
  return !std::ranges::all_of(last, [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
}

// One parse run: the section being read and what was seen, and a small function per key.
class Parser {
 public:
  std::expected<TunnelKey, KeyTextError> run(std::string_view text);

 private:
  enum class Section { none, interface, peer };
  using Result = std::expected<void, KeyTextError>;

  Result line(std::string_view raw);
  Result interfaceKey(const std::string& name, std::string_view value);
  Result peerKey(const std::string& name, std::string_view value);
  Result finishPeer();
  std::unexpected<KeyTextError> fail(std::string message) const {
    return std::unexpected(KeyTextError{lineNumber_, fmt::format("строка {}: {} — {}", lineNumber_, quoted_, message)});
  }
  // A key that may appear once per section.
  Result once(const std::string& name) {
    if (!seen_.insert(name).second) return fail("ключ повторяется");
    return {};
  }

  TunnelKey key_;
  Section section_ = Section::none;
  bool interfaceSeen_ = false;
  bool privateKeySeen_ = false;
  int interfaceLine_ = 0;
  std::optional<TunnelPeer> peer_;
  bool peerEndpointSeen_ = false;
  std::set<std::string> seen_;
  std::set<WireGuardKey> peerKeys_;
  int lineNumber_ = 0;
  std::string quoted_;
};

std::expected<TunnelKey, KeyTextError> Parser::run(std::string_view text) {
  if (text.size() > kMaxKeyTextBytes) {
    return std::unexpected(KeyTextError{0, fmt::format("текст ключа длиннее {} байт", kMaxKeyTextBytes)});
  }
  std::size_t start = 0;
  while (start < text.size()) {
    const auto newline = text.find('\n', start);
    const auto end = newline == std::string_view::npos ? text.size() : newline;
    ++lineNumber_;
    if (auto done = line(text.substr(start, end - start)); !done) return std::unexpected(done.error());
    start = end + 1;
  }
  if (auto done = finishPeer(); !done) return std::unexpected(done.error());
  if (!interfaceSeen_) return std::unexpected(KeyTextError{0, "в ключе нет раздела [Interface]"});
  if (!privateKeySeen_) {
    return std::unexpected(
        KeyTextError{interfaceLine_, fmt::format("строка {}: в [Interface] нет PrivateKey", interfaceLine_)});
  }
  if (key_.interface.addresses.empty()) {
    return std::unexpected(
        KeyTextError{interfaceLine_, fmt::format("строка {}: в [Interface] нет Address", interfaceLine_)});
  }
  if (key_.peers.empty()) return std::unexpected(KeyTextError{0, "в ключе нет раздела [Peer]"});
  const bool hasIPv6 =
      std::ranges::any_of(key_.interface.addresses, [](const IpPrefix& p) { return !p.address.isV4(); });
  if (key_.interface.mtu && hasIPv6 && *key_.interface.mtu < kMinMtuIPv6) {
    return std::unexpected(KeyTextError{
        interfaceLine_, fmt::format("строка {}: MTU {} меньше {}, без которых IPv6-адрес интерфейса не работает",
                                    interfaceLine_, *key_.interface.mtu, kMinMtuIPv6)});
  }
  return std::move(key_);
}

Parser::Result Parser::line(std::string_view raw) {
  std::string_view content = raw;
  if (const auto hash = content.find('#'); hash != std::string_view::npos) content = content.substr(0, hash);
  content = trim(content);
  if (content.empty()) return {};
  quoted_ = quoteLine(trim(raw));

  if (content.front() == '[') {
    if (content.back() != ']') return fail("заголовок раздела без «]»");
    const std::string name = lower(trim(content.substr(1, content.size() - 2)));
    if (auto done = finishPeer(); !done) return done;
    seen_.clear();
    if (name == "interface") {
      if (interfaceSeen_) return fail("второй раздел [Interface]");
      interfaceSeen_ = true;
      interfaceLine_ = lineNumber_;
      section_ = Section::interface;
      return {};
    }
    if (name == "peer") {
      if (key_.peers.size() >= kMaxPeers) return fail(fmt::format("пиров больше {}", kMaxPeers));
      section_ = Section::peer;
      peer_.emplace();
      peer_->line = lineNumber_;
      peerEndpointSeen_ = false;
      return {};
    }
    return fail("неизвестный раздел (ожидается [Interface] или [Peer])");
  }

  const auto eq = content.find('=');
  if (eq == std::string_view::npos) return fail("ожидается «Ключ = Значение»");
  const std::string name = lower(trim(content.substr(0, eq)));
  const std::string_view value = trim(content.substr(eq + 1));
  if (name.empty()) return fail("нет имени ключа");
  if (value.empty()) return fail("пустое значение");
  switch (section_) {
    case Section::interface:
      return interfaceKey(name, value);
    case Section::peer:
      return peerKey(name, value);
    case Section::none:
    default:
      return fail("строка вне раздела [Interface] или [Peer]");
  }
}

Parser::Result Parser::interfaceKey(const std::string& name, std::string_view value) {
  TunnelInterface& iface = key_.interface;
  if (name == "privatekey") {
    if (auto done = once(name); !done) return done;
    auto key = decodeKey(value);
    if (!key) return fail("не ключ WireGuard (нужны 32 байта в Base64)");
    iface.privateKey = *key;
    privateKeySeen_ = true;
    return {};
  }
  if (name == "address") {
    for (std::string_view item : splitList(value)) {
      auto prefix = IpPrefix::parse(item);
      if (!prefix) return fail(fmt::format("не адрес с длиной префикса: «{}»", clip(item)));
      if (iface.addresses.size() >= kMaxAddresses) return fail(fmt::format("адресов больше {}", kMaxAddresses));
      iface.addresses.push_back(*prefix);
    }
    return {};
  }
  if (name == "dns") {
    for (std::string_view item : splitList(value)) {
      if (auto address = IpAddress::parse(item)) {
        iface.dns.push_back(*address);
      } else if (isHostName(item)) {
        iface.dnsSearch.emplace_back(item);
      } else {
        return fail(fmt::format("не адрес DNS-сервера и не домен поиска: «{}»", clip(item)));
      }
    }
    return {};
  }
  if (name == "mtu") {
    if (auto done = once(name); !done) return done;
    auto mtu = parseDecimal(value);
    if (!mtu || *mtu < kMinMtu || *mtu > kMaxMtu)
      return fail(fmt::format("MTU должен быть от {} до {}", kMinMtu, kMaxMtu));
    iface.mtu = static_cast<int>(*mtu);
    return {};
  }
  if (name == "listenport") {
    if (auto done = once(name); !done) return done;
    auto port = parseDecimal(value);
    if (!port || *port < 0 || *port > 65535) return fail("порт должен быть от 0 до 65535");
    iface.listenPort = static_cast<std::uint16_t>(*port);
    return {};
  }
  if (name == "table" || name == "fwmark" || name == "saveconfig" || name == "preup" || name == "postup" ||
      name == "predown" || name == "postdown") {
    key_.ignoredKeys.push_back(name);
    return {};
  }
  return fail("неизвестный ключ в разделе [Interface]");
}

Parser::Result Parser::peerKey(const std::string& name, std::string_view value) {
  TunnelPeer& peer = *peer_;
  if (name == "publickey") {
    if (auto done = once(name); !done) return done;
    auto key = decodeKey(value);
    if (!key) return fail("не ключ WireGuard (нужны 32 байта в Base64)");
    if (!peerKeys_.insert(*key).second) return fail("этот PublicKey уже есть у другого пира");
    peer.publicKey = *key;
    return {};
  }
  if (name == "presharedkey") {
    if (auto done = once(name); !done) return done;
    auto key = decodeKey(value);
    if (!key) return fail("не ключ WireGuard (нужны 32 байта в Base64)");
    peer.presharedKey = *key;
    return {};
  }
  if (name == "allowedips") {
    for (std::string_view item : splitList(value)) {
      auto prefix = IpPrefix::parse(item);
      if (!prefix) return fail(fmt::format("не сеть с длиной префикса: «{}»", clip(item)));
      if (peer.allowedIPs.size() >= kMaxAllowedIPsPerPeer) {
        return fail(fmt::format("сетей в AllowedIPs больше {}", kMaxAllowedIPsPerPeer));
      }
      peer.allowedIPs.push_back(prefix->masked());
    }
    return {};
  }
  if (name == "endpoint") {
    if (auto done = once(name); !done) return done;
    auto endpoint = parseEndpoint(value);
    if (!endpoint) return fail("ожидается «адрес:порт», «имя:порт» или «[IPv6]:порт» с портом от 1 до 65535");
    peer.endpoint = *endpoint;
    peerEndpointSeen_ = true;
    return {};
  }
  if (name == "persistentkeepalive") {
    if (auto done = once(name); !done) return done;
    if (lower(value) == "off") {
      peer.persistentKeepalive = 0;
      return {};
    }
    auto seconds = parseDecimal(value);
    if (!seconds || *seconds < 0 || *seconds > 65535) return fail("интервал должен быть от 0 до 65535 секунд или off");
    peer.persistentKeepalive = static_cast<int>(*seconds);
    return {};
  }
  return fail("неизвестный ключ в разделе [Peer]");
}

Parser::Result Parser::finishPeer() {
  if (!peer_) return {};
  TunnelPeer peer = std::move(*peer_);
  peer_.reset();
  const int at = peer.line;
  auto missing = [at](std::string_view what) {
    return std::unexpected(KeyTextError{at, fmt::format("строка {}: в [Peer] нет {}", at, what)});
  };
  if (!seen_.contains("publickey")) return missing("PublicKey");
  if (peer.allowedIPs.empty()) return missing("AllowedIPs");
  if (!peerEndpointSeen_) return missing("Endpoint");
  key_.peers.push_back(std::move(peer));
  return {};
}

}  // namespace

std::string TunnelEndpoint::toString() const {
  const bool v6 = host.find(':') != std::string::npos;
  return v6 ? fmt::format("[{}]:{}", host, port) : fmt::format("{}:{}", host, port);
}

std::optional<TunnelEndpoint> parseEndpoint(std::string_view text) {
  std::string_view host;
  std::string_view port;
  if (!text.empty() && text.front() == '[') {
    const auto close = text.find(']');
    if (close == std::string_view::npos || close + 1 >= text.size() || text[close + 1] != ':') return std::nullopt;
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
    auto address = IpAddress::parse(host);
    if (!address || address->isV4()) return std::nullopt;
  } else {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    // An IPv6 address needs its brackets, or its last group would read as the port.
    if (host.find(':') != std::string_view::npos) return std::nullopt;
    if (!IpAddress::parse(host) && !isHostName(host)) return std::nullopt;
  }
  auto number = parseDecimal(port);
  if (!number || *number < 1 || *number > 65535) return std::nullopt;
  return TunnelEndpoint{std::string(host), static_cast<std::uint16_t>(*number)};
}

std::expected<TunnelKey, KeyTextError> parseTunnelKey(std::string_view text) { return Parser().run(text); }

}  // namespace norvik::tunnel_helper
