#include "platform/linux/netlink_path_source.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <poll.h>
#include <span>

#include <arpa/inet.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/files.h"
#include "platform/text.h"

namespace norvik {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t kReceiveBuffer = 64 * 1024;
constexpr int kDumpAttempts = 3;

Error netlinkError(const std::string& what, int code) {
  return Error{"POSIX", code, what + ": " + std::strerror(code)};
}

constexpr std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

// One attribute of a netlink message: its type (flags stripped) and payload.
struct Attribute {
  unsigned type = 0;
  std::span<const std::uint8_t> data;
};

// Walks the rtattr list in `bytes`, stopping at the first malformed entry.
template <class Fn>
void forEachAttribute(std::span<const std::uint8_t> bytes, Fn&& fn) {
  while (bytes.size() >= sizeof(rtattr)) {
    rtattr header;
    std::memcpy(&header, bytes.data(), sizeof header);
    if (header.rta_len < sizeof(rtattr) || header.rta_len > bytes.size()) return;
    fn(Attribute{static_cast<unsigned>(header.rta_type & NLA_TYPE_MASK),
                 bytes.subspan(align4(sizeof(rtattr)), header.rta_len - align4(sizeof(rtattr)))});
    const std::size_t step = align4(header.rta_len);
    if (step >= bytes.size()) return;
    bytes = bytes.subspan(step);
  }
}

template <class T>
std::optional<T> readFixed(std::span<const std::uint8_t> data) {
  if (data.size() < sizeof(T)) return std::nullopt;
  T value;
  std::memcpy(&value, data.data(), sizeof value);
  return value;
}

std::string attributeText(std::span<const std::uint8_t> data) {
  std::string text(reinterpret_cast<const char*>(data.data()), data.size());
  if (auto nul = text.find('\0'); nul != std::string::npos) text.resize(nul);
  return text;
}

std::string addressText(int family, std::span<const std::uint8_t> data) {
  const std::size_t size = family == AF_INET ? 4 : family == AF_INET6 ? 16 : 0;
  if (size == 0 || data.size() < size) return {};
  std::array<std::uint8_t, 16> raw{};
  std::memcpy(raw.data(), data.data(), size);
  char text[INET6_ADDRSTRLEN] = {};
  if (!::inet_ntop(family, raw.data(), text, sizeof text)) return {};
  return text;
}

// The DEVTYPE sysfs records for the interface, when sysfs shows this very interface (inside
// another network namespace /sys/class/net may show the host's devices under the same names).
std::string sysfsDeviceType(const std::string& name, int index) {
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return {};
  const std::string dir = "/sys/class/net/" + name;
  auto indexText = readFile(dir + "/ifindex");
  int listedIndex = 0;
  if (!indexText) return {};
  const std::string_view digits = trimWhitespace(*indexText);
  if (std::from_chars(digits.data(), digits.data() + digits.size(), listedIndex).ec != std::errc{} ||
      listedIndex != index) {
    return {};
  }
  std::ifstream uevent(dir + "/uevent");
  std::string line;
  while (std::getline(uevent, line)) {
    if (line.starts_with("DEVTYPE=")) return line.substr(8);
  }
  return {};
}

// What one set of dumps found.
struct Observation {
  std::vector<netlink_path::Link> links;
  std::set<int> addressed;
  std::vector<netlink_path::DefaultRoute> routes;
};

void parseLink(std::span<const std::uint8_t> payload, Observation& out) {
  auto info = readFixed<ifinfomsg>(payload);
  if (!info) return;
  netlink_path::Link link;
  link.index = info->ifi_index;
  link.up = (info->ifi_flags & IFF_UP) != 0;
  link.running = (info->ifi_flags & IFF_RUNNING) != 0;
  std::string kind;
  forEachAttribute(payload.subspan(std::min(payload.size(), align4(sizeof(ifinfomsg)))), [&](const Attribute& a) {
    if (a.type == IFLA_IFNAME) {
      link.name = attributeText(a.data);
    } else if (a.type == IFLA_MASTER) {
      link.enslaved = readFixed<std::uint32_t>(a.data).value_or(0) != 0;
    } else if (a.type == IFLA_LINKINFO) {
      forEachAttribute(a.data, [&](const Attribute& nested) {
        if (nested.type == IFLA_INFO_KIND) kind = attributeText(nested.data);
      });
    }
  });
  link.type = netlink_path::classifyInterface(info->ifi_type, kind, sysfsDeviceType(link.name, link.index));
  out.links.push_back(std::move(link));
}

void parseAddress(std::span<const std::uint8_t> payload, Observation& out) {
  auto info = readFixed<ifaddrmsg>(payload);
  if (!info) return;
  std::uint32_t flags = info->ifa_flags;
  forEachAttribute(payload.subspan(std::min(payload.size(), align4(sizeof(ifaddrmsg)))), [&](const Attribute& a) {
    if (a.type == IFA_FLAGS) flags = readFixed<std::uint32_t>(a.data).value_or(flags);
  });
  // Link-local and host addresses reach nobody beyond the link; an address still in duplicate
  // detection (or failed it) cannot be used yet.
  if (info->ifa_scope >= RT_SCOPE_LINK) return;
  if (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) return;
  out.addressed.insert(static_cast<int>(info->ifa_index));
}

void parseRoute(std::span<const std::uint8_t> payload, Observation& out) {
  auto info = readFixed<rtmsg>(payload);
  if (!info) return;
  if (info->rtm_dst_len != 0 || info->rtm_type != RTN_UNICAST || (info->rtm_flags & (RTM_F_CLONED | RTNH_F_DEAD))) {
    return;
  }
  std::uint32_t table = info->rtm_table;
  int outputIndex = 0;
  std::string gateway;
  std::vector<netlink_path::DefaultRoute> hops;
  const int family = info->rtm_family;
  forEachAttribute(payload.subspan(std::min(payload.size(), align4(sizeof(rtmsg)))), [&](const Attribute& a) {
    switch (a.type) {
      case RTA_TABLE:
        table = readFixed<std::uint32_t>(a.data).value_or(table);
        break;
      case RTA_OIF:
        outputIndex = static_cast<int>(readFixed<std::uint32_t>(a.data).value_or(0));
        break;
      case RTA_GATEWAY:
        gateway = addressText(family, a.data);
        break;
      case RTA_VIA:
        if (a.data.size() > sizeof(std::uint16_t)) {
          const auto viaFamily = readFixed<std::uint16_t>(a.data).value_or(0);
          gateway = addressText(viaFamily, a.data.subspan(sizeof(std::uint16_t)));
        }
        break;
      case RTA_MULTIPATH: {
        auto rest = a.data;
        while (rest.size() >= sizeof(rtnexthop)) {
          auto hop = readFixed<rtnexthop>(rest).value();
          if (hop.rtnh_len < sizeof(rtnexthop) || hop.rtnh_len > rest.size()) break;
          netlink_path::DefaultRoute route{hop.rtnh_ifindex, {}};
          if (!(hop.rtnh_flags & RTNH_F_DEAD)) {
            forEachAttribute(rest.subspan(align4(sizeof(rtnexthop)), hop.rtnh_len - align4(sizeof(rtnexthop))),
                             [&](const Attribute& nested) {
                               if (nested.type == RTA_GATEWAY) route.gateway = addressText(family, nested.data);
                             });
            hops.push_back(std::move(route));
          }
          const std::size_t step = align4(hop.rtnh_len);
          if (step >= rest.size()) break;
          rest = rest.subspan(step);
        }
        break;
      }
      default:
        break;
    }
  });
  if (table != RT_TABLE_MAIN) return;
  if (!hops.empty()) {
    for (auto& hop : hops) out.routes.push_back(std::move(hop));
  } else if (outputIndex != 0) {
    out.routes.push_back({outputIndex, std::move(gateway)});
  }
}

// Sends one dump request and feeds each answer message to `parse`. Fails with EINTR when the
// kernel reports that the dump was interrupted by a change (the caller dumps again).
template <class Request, class Parse>
std::expected<void, Error> dump(int fd, std::uint32_t sequence, std::uint16_t type, const Request& body,
                                Parse&& parse) {
  struct {
    nlmsghdr header;
    Request body;
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(Request));
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = sequence;
  request.body = body;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(fd, &request, request.header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
    return std::unexpected(netlinkError("netlink dump request", errno));
  }

  std::vector<std::uint8_t> buffer(kReceiveBuffer);
  bool interrupted = false;
  for (;;) {
    const ssize_t received = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (received < 0) {
      if (errno == EINTR) continue;
      return std::unexpected(netlinkError("netlink dump", errno));
    }
    std::span<const std::uint8_t> rest(buffer.data(), static_cast<std::size_t>(received));
    while (rest.size() >= sizeof(nlmsghdr)) {
      nlmsghdr header;
      std::memcpy(&header, rest.data(), sizeof header);
      if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > rest.size()) break;
      const auto payload = rest.subspan(NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN);
      const std::size_t step = std::min(rest.size(), align4(header.nlmsg_len));
      rest = rest.subspan(step);
      if (header.nlmsg_seq != sequence) continue;  // a stale answer to an abandoned dump
      if (header.nlmsg_flags & NLM_F_DUMP_INTR) interrupted = true;
      if (header.nlmsg_type == NLMSG_DONE) {
        if (interrupted) return std::unexpected(netlinkError("netlink dump", EINTR));
        return {};
      }
      if (header.nlmsg_type == NLMSG_ERROR) {
        const auto error = readFixed<nlmsgerr>(payload);
        const int code = error ? -error->error : EPROTO;
        if (code == 0) return {};
        return std::unexpected(netlinkError("netlink dump", code));
      }
      parse(header, payload);
    }
  }
}

}  // namespace

namespace netlink_path {

NetworkInterfaceType classifyInterface(unsigned hardwareType, std::string_view kind, std::string_view deviceType) {
  if (hardwareType == ARPHRD_LOOPBACK) return NetworkInterfaceType::loopback;
  if (deviceType == "wlan") return NetworkInterfaceType::wifi;
  if (deviceType == "wwan" || kind == "wwan") return NetworkInterfaceType::cellular;
  // A veth is a virtual cable, but it is how a network namespace gets its "wired" network.
  if (kind == "veth") return NetworkInterfaceType::wiredEthernet;
  // Every other driver that registers a link kind makes virtual devices: tun, wireguard, bridge,
  // dummy, vlan, bond, macvlan, vxlan, gre…
  if (!kind.empty()) return NetworkInterfaceType::other;
  if (hardwareType == ARPHRD_ETHER) return NetworkInterfaceType::wiredEthernet;
  if (hardwareType == ARPHRD_RAWIP) return NetworkInterfaceType::cellular;  // raw-IP mobile modems
  return NetworkInterfaceType::other;
}

NetworkPath assemblePath(const std::vector<Link>& links, const std::set<int>& addressed,
                         const std::vector<DefaultRoute>& routes, const PhysicalPathSourceOptions& options) {
  const auto& prohibited = options.prohibitedInterfaceTypes;
  std::map<int, const Link*> available;
  for (const auto& link : links) {
    if (std::find(prohibited.begin(), prohibited.end(), link.type) != prohibited.end()) continue;
    if (!link.up || !link.running || link.enslaved || !addressed.contains(link.index)) continue;
    available.emplace(link.index, &link);
  }

  NetworkPath path;
  std::set<int> listed;
  for (const auto& route : routes) {
    auto it = available.find(route.outputIndex);
    if (it == available.end()) continue;
    if (!route.gateway.empty()) path.gateways.push_back(route.gateway);
    if (listed.insert(route.outputIndex).second) {
      path.availableInterfaces.push_back({it->second->name, it->second->type, it->second->index});
    }
  }
  const bool hasDefaultRoute = !listed.empty();
  for (const auto& [index, link] : available) {
    if (listed.insert(index).second) path.availableInterfaces.push_back({link->name, link->type, link->index});
  }

  if (hasDefaultRoute) {
    path.status = NetworkPathStatus::satisfied;
    path.isExpensive = path.availableInterfaces.front().type == NetworkInterfaceType::cellular;
  } else {
    path.status = NetworkPathStatus::unsatisfied;
    path.unsatisfiedReason = available.empty() ? "notAvailable" : "noDefaultRoute";
  }
  return path;
}

}  // namespace netlink_path

NetlinkPathSource::NetlinkPathSource(Log& log, Options options) : log_(log), options_(options) {}

NetlinkPathSource::~NetlinkPathSource() { stop(); }

std::expected<void, Error> NetlinkPathSource::start(PhysicalPathSourceOptions options, Handler handler) {
  if (worker_.joinable()) return std::unexpected(Error{"POSIX", EALREADY, "the path source is already started"});

  // Subscribe before the first dump, so that no change between the two is missed.
  eventSocket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (eventSocket_ < 0) return std::unexpected(netlinkError("netlink socket", errno));
  const int bufferSize = 1 << 20;
  (void)::setsockopt(eventSocket_, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (::bind(eventSocket_, reinterpret_cast<sockaddr*>(&groups), sizeof groups) < 0) {
    const int code = errno;
    closeSockets();
    return std::unexpected(netlinkError("netlink bind", code));
  }
  requestSocket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  stopEvent_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (requestSocket_ < 0 || stopEvent_ < 0) {
    const int code = errno;
    closeSockets();
    return std::unexpected(netlinkError("netlink socket", code));
  }
  // A dump answer that never comes must not hang the worker for good.
  timeval timeout{2, 0};
  (void)::setsockopt(requestSocket_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

  worker_ = std::thread([this, options = std::move(options), handler = std::move(handler)]() mutable {
    run(std::move(options), std::move(handler));
  });
  return {};
}

void NetlinkPathSource::stop() {
  if (!worker_.joinable()) return;
  const std::uint64_t one = 1;
  (void)!::write(stopEvent_, &one, sizeof one);
  worker_.join();
  closeSockets();
  std::lock_guard lock(mutex_);
  current_.reset();
}

std::optional<NetworkPath> NetlinkPathSource::currentPath() const {
  std::lock_guard lock(mutex_);
  return current_;
}

void NetlinkPathSource::closeSockets() {
  for (int* fd : {&eventSocket_, &requestSocket_, &stopEvent_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

void NetlinkPathSource::run(PhysicalPathSourceOptions options, Handler handler) {
  std::optional<NetworkPath> delivered;
  auto observeAndDeliver = [&] {
    auto path = observe(options);
    if (!path) {
      // The last path stands; the next change in the feed tries again.
      log_.format("[PathMonitor] netlink: {}", path.error().message);
      return;
    }
    {
      std::lock_guard lock(mutex_);
      current_ = *path;
    }
    if (delivered == *path) return;
    delivered = *path;
    handler(*path);
  };

  observeAndDeliver();

  std::vector<std::uint8_t> buffer(kReceiveBuffer);
  bool inBurst = false;
  SteadyClock::time_point burstStart{};
  SteadyClock::time_point lastMessage{};
  for (;;) {
    int timeoutMs = -1;
    if (inBurst) {
      const auto due = std::min(lastMessage + options_.quietPeriod, burstStart + options_.maxDelay);
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - SteadyClock::now()).count();
      timeoutMs = static_cast<int>(std::max<std::int64_t>(left, 0));
    }
    pollfd fds[2] = {{stopEvent_, POLLIN, 0}, {eventSocket_, POLLIN, 0}};
    const int ready = ::poll(fds, 2, timeoutMs);
    if (ready < 0 && errno != EINTR) {
      log_.format("[PathMonitor] netlink: {}", std::strerror(errno));
      return;
    }
    if (fds[0].revents & POLLIN) return;

    if (ready > 0 && (fds[1].revents & (POLLIN | POLLERR))) {
      bool changed = false;
      for (;;) {
        const ssize_t received = ::recv(eventSocket_, buffer.data(), buffer.size(), 0);
        if (received > 0) {
          changed = true;
          continue;
        }
        // ENOBUFS: the kernel dropped messages for us; the dump tells what they said.
        if (received < 0 && errno == ENOBUFS) {
          changed = true;
          continue;
        }
        if (received < 0 && errno == EINTR) continue;
        break;
      }
      if (changed) {
        lastMessage = SteadyClock::now();
        if (!inBurst) burstStart = lastMessage;
        inBurst = true;
      }
    }

    if (inBurst) {
      const auto now = SteadyClock::now();
      if (now - lastMessage >= options_.quietPeriod || now - burstStart >= options_.maxDelay) {
        inBurst = false;
        observeAndDeliver();
      }
    }
  }
}

std::expected<NetworkPath, Error> NetlinkPathSource::observe(const PhysicalPathSourceOptions& options) {
  Error last;
  for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
    Observation seen;
    auto links = dump(requestSocket_, ++sequence_, RTM_GETLINK, ifinfomsg{},
                      [&](const nlmsghdr& h, std::span<const std::uint8_t> p) {
                        if (h.nlmsg_type == RTM_NEWLINK) parseLink(p, seen);
                      });
    auto addresses = links ? dump(requestSocket_, ++sequence_, RTM_GETADDR, ifaddrmsg{},
                                  [&](const nlmsghdr& h, std::span<const std::uint8_t> p) {
                                    if (h.nlmsg_type == RTM_NEWADDR) parseAddress(p, seen);
                                  })
                           : links;
    std::expected<void, Error> routes = addresses;
    for (const unsigned char family : {AF_INET, AF_INET6}) {
      if (!routes) break;
      rtmsg request{};
      request.rtm_family = family;
      routes = dump(requestSocket_, ++sequence_, RTM_GETROUTE, request,
                    [&](const nlmsghdr& h, std::span<const std::uint8_t> p) {
                      if (h.nlmsg_type == RTM_NEWROUTE) parseRoute(p, seen);
                    });
    }
    if (routes) return netlink_path::assemblePath(seen.links, seen.addressed, seen.routes, options);
    last = routes.error();
    if (last.code != EINTR) break;
  }
  return std::unexpected(last);
}

}  // namespace norvik
