#include "tunnel_helper/uapi.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/crypto.h"
#include "platform/files.h"

namespace norvik::tunnel_helper {
namespace {

constexpr std::size_t kMaxAnswerBytes = 1 << 20;
constexpr std::int64_t kMaxHandshakeSeconds = 9'000'000'000;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::string hexKey(const WireGuardKey& key) { return hexLower(ByteView(key.data(), key.size())); }

std::optional<WireGuardKey> keyFromHex(std::string_view hex) {
  if (hex.size() != 64) return std::nullopt;
  WireGuardKey key{};
  for (std::size_t i = 0; i < key.size(); ++i) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(hex.data() + 2 * i, hex.data() + 2 * i + 2, value, 16);
    if (error != std::errc() || end != hex.data() + 2 * i + 2) return std::nullopt;
    key[i] = static_cast<std::uint8_t>(value);
  }
  return key;
}

template <class T>
std::optional<T> number(std::string_view text) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Splits an answer into its lines; true when it ended with "errno=N" and an empty line.
struct Lines {
  std::vector<std::pair<std::string_view, std::string_view>> pairs;
  std::optional<long> errnoValue;
  std::optional<std::string> bad;
};

Lines split(std::string_view answer) {
  Lines out;
  std::size_t start = 0;
  while (start < answer.size()) {
    const auto end = answer.find('\n', start);
    if (end == std::string_view::npos) break;  // a line without its newline: truncated
    const std::string_view line = answer.substr(start, end - start);
    start = end + 1;
    if (line.empty()) break;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos || eq == 0) {
      out.bad = std::string(line.substr(0, 80));
      return out;
    }
    const std::string_view key = line.substr(0, eq);
    const std::string_view value = line.substr(eq + 1);
    if (key == "errno") {
      out.errnoValue = number<long>(value);
      if (!out.errnoValue) out.bad = std::string(line.substr(0, 80));
      return out;
    }
    out.pairs.emplace_back(key, value);
  }
  return out;
}

}  // namespace

std::string ResolvedEndpoint::toString() const {
  return address.isV4() ? fmt::format("{}:{}", address.toString(), port)
                        : fmt::format("[{}]:{}", address.toString(), port);
}

std::string uapiSetRequest(const TunnelKey& key, const std::vector<ResolvedEndpoint>& endpoints,
                           std::uint32_t firewallMark) {
  std::string out = "set=1\n";
  out += "private_key=" + hexKey(key.interface.privateKey) + "\n";
  if (key.interface.listenPort) out += fmt::format("listen_port={}\n", *key.interface.listenPort);
  out += fmt::format("fwmark={}\n", firewallMark);
  out += "replace_peers=true\n";
  for (std::size_t i = 0; i < key.peers.size(); ++i) {
    const TunnelPeer& peer = key.peers[i];
    out += "public_key=" + hexKey(peer.publicKey) + "\n";
    if (peer.presharedKey) out += "preshared_key=" + hexKey(*peer.presharedKey) + "\n";
    if (i < endpoints.size()) out += "endpoint=" + endpoints[i].toString() + "\n";
    if (peer.persistentKeepalive) out += fmt::format("persistent_keepalive_interval={}\n", *peer.persistentKeepalive);
    out += "replace_allowed_ips=true\n";
    for (const IpPrefix& allowed : peer.allowedIPs) out += "allowed_ip=" + allowed.toString() + "\n";
  }
  out += "\n";
  return out;
}

std::optional<std::chrono::system_clock::time_point> DeviceState::lastHandshake() const {
  std::optional<std::chrono::system_clock::time_point> latest;
  for (const PeerState& peer : peers) {
    if (peer.lastHandshake && (!latest || *peer.lastHandshake > *latest)) latest = peer.lastHandshake;
  }
  return latest;
}

std::uint64_t DeviceState::receivedBytes() const {
  std::uint64_t total = 0;
  for (const PeerState& peer : peers) total += peer.receivedBytes;
  return total;
}

std::uint64_t DeviceState::sentBytes() const {
  std::uint64_t total = 0;
  for (const PeerState& peer : peers) total += peer.sentBytes;
  return total;
}

std::expected<DeviceState, std::string> parseUapiGetResponse(std::string_view answer) {
  const Lines lines = split(answer);
  if (lines.bad) return std::unexpected(fmt::format("ответ устройства не читается: «{}»", *lines.bad));
  if (!lines.errnoValue) return std::unexpected("ответ устройства оборван (нет errno)");
  if (*lines.errnoValue != 0) return std::unexpected(fmt::format("устройство ответило errno={}", *lines.errnoValue));

  DeviceState state;
  // The handshake time comes in two lines (seconds, nanoseconds); zero means none yet.
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  auto closeHandshake = [&] {
    if (!state.peers.empty() && (seconds != 0 || nanoseconds != 0)) {
      state.peers.back().lastHandshake =
          std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
              std::chrono::seconds(seconds) + std::chrono::nanoseconds(nanoseconds)));
    }
    seconds = 0;
    nanoseconds = 0;
  };
  for (const auto& [key, value] : lines.pairs) {
    if (key == "public_key") {
      closeHandshake();
      auto peerKey = keyFromHex(value);
      if (!peerKey) return std::unexpected("ответ устройства: public_key — не ключ");
      state.peers.push_back(PeerState{*peerKey});
      continue;
    }
    if (key == "listen_port") {
      state.listenPort = number<std::uint16_t>(value);
      continue;
    }
    if (state.peers.empty()) continue;  // private_key, fwmark: the device's own lines
    PeerState& peer = state.peers.back();
    auto bad = [&] {
      return std::unexpected(fmt::format("ответ устройства: {}=«{}» — не число", key, value.substr(0, 32)));
    };
    if (key == "rx_bytes") {
      auto n = number<std::uint64_t>(value);
      if (!n) return bad();
      peer.receivedBytes = *n;
    } else if (key == "tx_bytes") {
      auto n = number<std::uint64_t>(value);
      if (!n) return bad();
      peer.sentBytes = *n;
    } else if (key == "last_handshake_time_sec" || key == "last_handshake_time_nsec") {
      auto n = number<std::int64_t>(value);
      const bool isSeconds = key == "last_handshake_time_sec";
      // Beyond these the time no longer fits the clock's nanoseconds.
      if (!n || *n < 0 || *n >= (isSeconds ? kMaxHandshakeSeconds : kNanosecondsPerSecond)) return bad();
      (isSeconds ? seconds : nanoseconds) = *n;
    }
  }
  closeHandshake();
  return state;
}

std::expected<void, std::string> parseUapiSetResponse(std::string_view answer) {
  const Lines lines = split(answer);
  if (lines.bad) return std::unexpected(fmt::format("ответ устройства не читается: «{}»", *lines.bad));
  if (!lines.errnoValue) return std::unexpected("ответ устройства оборван (нет errno)");
  if (*lines.errnoValue != 0)
    return std::unexpected(fmt::format("устройство отвергло настройки: errno={}", *lines.errnoValue));
  return {};
}

std::expected<std::string, Error> uapiExchange(const std::filesystem::path& socketPath, std::string_view request,
                                               std::chrono::milliseconds timeout) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = socketPath.string();
  if (path.size() >= sizeof address.sun_path) return std::unexpected(posixError(ENAMETOOLONG, "connect", socketPath));
  std::copy(path.begin(), path.end(), address.sun_path);

  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::unexpected(posixError(errno, "socket", socketPath));
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return std::unexpected(posixError(errno, "connect", socketPath));
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  auto waitFor = [&](short events) -> std::expected<void, Error> {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{fd, events, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
    if (ready == 0) return std::unexpected(posixError(ETIMEDOUT, "poll", socketPath));
    if (ready < 0) return std::unexpected(posixError(errno, "poll", socketPath));
    return {};
  };

  std::size_t sent = 0;
  while (sent < request.size()) {
    if (auto ready = waitFor(POLLOUT); !ready) return std::unexpected(ready.error());
    const ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::unexpected(posixError(errno, "send", socketPath));
    sent += static_cast<std::size_t>(n);
  }
  std::string answer;
  char buffer[4096];
  // The answer ends with an empty line after "errno=N".
  while (!answer.ends_with("\n\n") || answer.find("errno=") == std::string::npos) {
    if (auto ready = waitFor(POLLIN); !ready) return std::unexpected(ready.error());
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::unexpected(posixError(errno, "recv", socketPath));
    if (n == 0) break;
    answer.append(buffer, static_cast<std::size_t>(n));
    if (answer.size() > kMaxAnswerBytes) return std::unexpected(posixError(EMSGSIZE, "recv", socketPath));
  }
  return answer;
}

}  // namespace norvik::tunnel_helper
