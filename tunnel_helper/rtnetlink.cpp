#include "tunnel_helper/rtnetlink.h"

#include <cerrno>
#include <cstring>
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace norvik::tunnel_helper {
namespace {

constexpr std::size_t kBatchBytes = 48 * 1024;
// A link message about no address family in particular.
constexpr unsigned char kAnyFamily = 0;
// The header's one-byte table field, when the table travels in its 32-bit attribute instead.
constexpr std::uint8_t kTableInAttribute = 0;
constexpr int kSocketBuffer = 4 << 20;

Error netlinkError(int err, std::string_view what) {
  return Error{"POSIX", err, fmt::format("{}: {}", what, std::strerror(err))};
}

// One netlink message under construction: the header, the fixed part, then attributes.
class MessageBuilder {
 public:
  MessageBuilder(std::uint16_t type, std::uint16_t flags) {
    nlmsghdr header{};
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    append(&header, sizeof header);
  }

  template <class T>
  void fixed(const T& body) {
    append(&body, sizeof body);
  }

  void attribute(std::uint16_t type, const void* data, std::size_t length) {
    rtattr header{};
    header.rta_type = type;
    header.rta_len = static_cast<std::uint16_t>(RTA_LENGTH(length));
    append(&header, sizeof header);
    append(data, length);
  }
  void u32(std::uint16_t type, std::uint32_t value) { attribute(type, &value, sizeof value); }

  std::vector<std::uint8_t> finish(std::uint32_t sequence) {
    auto* header = reinterpret_cast<nlmsghdr*>(bytes_.data());
    header->nlmsg_len = static_cast<std::uint32_t>(bytes_.size());
    header->nlmsg_seq = sequence;
    return std::move(bytes_);
  }

 private:
  void append(const void* data, std::size_t length) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    bytes_.insert(bytes_.end(), p, p + length);
    bytes_.resize(NLMSG_ALIGN(bytes_.size()), 0);
  }

  std::vector<std::uint8_t> bytes_;
};

// The attributes after a fixed part, by type (the last of each type wins).
std::map<std::uint16_t, std::pair<const std::uint8_t*, std::size_t>> attributes(
    const std::vector<std::uint8_t>& message, std::size_t fixedSize) {
  std::map<std::uint16_t, std::pair<const std::uint8_t*, std::size_t>> out;
  std::size_t offset = NLMSG_HDRLEN + NLMSG_ALIGN(fixedSize);
  while (offset + sizeof(rtattr) <= message.size()) {
    rtattr header{};
    std::memcpy(&header, message.data() + offset, sizeof header);
    if (header.rta_len < sizeof(rtattr) || offset + header.rta_len > message.size()) break;
    out[header.rta_type] = {message.data() + offset + RTA_LENGTH(0), header.rta_len - RTA_LENGTH(0)};
    offset += RTA_ALIGN(header.rta_len);
  }
  return out;
}

std::optional<std::uint32_t> u32Attribute(
    const std::map<std::uint16_t, std::pair<const std::uint8_t*, std::size_t>>& attrs, std::uint16_t type) {
  auto it = attrs.find(type);
  if (it == attrs.end() || it->second.second < sizeof(std::uint32_t)) return std::nullopt;
  std::uint32_t value = 0;
  std::memcpy(&value, it->second.first, sizeof value);
  return value;
}

std::string describeRule(const RoutingRule& rule) {
  std::string text = fmt::format("rule {} pref {}", rule.family == AF_INET ? "-4" : "-6", rule.priority);
  if (rule.destination) text += " to " + rule.destination->toString();
  if (rule.firewallMark) text += fmt::format(" {}fwmark {:#x}", rule.invert ? "not " : "", *rule.firewallMark);
  text += fmt::format(" table {}", rule.table);
  if (rule.suppressPrefixLength) text += fmt::format(" suppress_prefixlength {}", *rule.suppressPrefixLength);
  return text;
}

}  // namespace

std::expected<RouteNetlink, Error> RouteNetlink::open() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) return std::unexpected(netlinkError(errno, "socket(NETLINK_ROUTE)"));
  ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    const int err = errno;
    ::close(fd);
    return std::unexpected(netlinkError(err, "bind(NETLINK_ROUTE)"));
  }
  return RouteNetlink(fd);
}

RouteNetlink::RouteNetlink(RouteNetlink&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), sequence_(other.sequence_) {}

RouteNetlink& RouteNetlink::operator=(RouteNetlink&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    sequence_ = other.sequence_;
  }
  return *this;
}

RouteNetlink::~RouteNetlink() {
  if (fd_ >= 0) ::close(fd_);
}

std::expected<void, Error> RouteNetlink::transact(std::vector<Message> messages, bool ignoreMissing,
                                                  bool acknowledgeLastOnly) {
  std::size_t next = 0;
  while (next < messages.size()) {
    // A batch: as many messages as fit, each with its own sequence number.
    std::vector<std::uint8_t> buffer;
    std::map<std::uint32_t, std::size_t> inBatch;
    std::size_t pending = 0;  // acknowledgements still to come
    while (next < messages.size() && (buffer.empty() || buffer.size() + messages[next].bytes.size() <= kBatchBytes)) {
      auto* header = reinterpret_cast<nlmsghdr*>(messages[next].bytes.data());
      header->nlmsg_seq = sequence_++;
      inBatch[header->nlmsg_seq] = next;
      const bool lastOfBatch = next + 1 == messages.size() ||
                               buffer.size() + header->nlmsg_len + messages[next + 1].bytes.size() > kBatchBytes;
      // The kernel handles a batch in order within the send; errors are reported whether asked for
      // or not, so one acknowledgement at the end of a batch says that all of it was handled.
      if (acknowledgeLastOnly && !lastOfBatch) {
        header->nlmsg_flags = static_cast<std::uint16_t>(header->nlmsg_flags & ~NLM_F_ACK);
      }
      if ((header->nlmsg_flags & NLM_F_ACK) != 0) ++pending;
      buffer.insert(buffer.end(), messages[next].bytes.begin(), messages[next].bytes.end());
      ++next;
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const ssize_t sent =
        ::sendto(fd_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
    if (sent < 0) return std::unexpected(netlinkError(errno, messages[inBatch.begin()->second].what));

    std::optional<Error> firstError;
    std::vector<std::uint8_t> answer(64 * 1024);
    while (pending > 0) {
      const ssize_t n = ::recv(fd_, answer.data(), answer.size(), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return std::unexpected(netlinkError(errno, "recv(NETLINK_ROUTE)"));
      auto length = static_cast<std::size_t>(n);
      for (auto* header = reinterpret_cast<nlmsghdr*>(answer.data()); NLMSG_OK(header, length);
           header = NLMSG_NEXT(header, length)) {
        if (header->nlmsg_type != NLMSG_ERROR) continue;
        auto it = inBatch.find(header->nlmsg_seq);
        if (it == inBatch.end()) continue;
        const auto* error = reinterpret_cast<const nlmsgerr*>(NLMSG_DATA(header));
        const int err = -error->error;
        const bool missing = err == ENOENT || err == ESRCH || err == ENODEV;
        if (err != 0 && !(ignoreMissing && missing) && !firstError)
          firstError = netlinkError(err, messages[it->second].what);
        const auto* request = reinterpret_cast<const nlmsghdr*>(messages[it->second].bytes.data());
        // An error answers a message that asked for no acknowledgement too; only those that asked count.
        if ((request->nlmsg_flags & NLM_F_ACK) != 0 && pending > 0) --pending;
        inBatch.erase(it);
      }
    }
    if (firstError) return std::unexpected(*firstError);
  }
  return {};
}

std::expected<std::vector<std::vector<std::uint8_t>>, Error> RouteNetlink::dump(std::uint16_t type, int family) {
  MessageBuilder builder(type, NLM_F_DUMP);
  rtgenmsg body{};
  body.rtgen_family = static_cast<unsigned char>(family);
  builder.fixed(body);
  const std::uint32_t sequence = sequence_++;
  auto request = builder.finish(sequence);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(fd_, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
    return std::unexpected(netlinkError(errno, "dump"));
  }
  std::vector<std::vector<std::uint8_t>> out;
  std::vector<std::uint8_t> answer(256 * 1024);
  for (;;) {
    const ssize_t n = ::recv(fd_, answer.data(), answer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::unexpected(netlinkError(errno, "recv(dump)"));
    auto length = static_cast<std::size_t>(n);
    for (auto* header = reinterpret_cast<nlmsghdr*>(answer.data()); NLMSG_OK(header, length);
         header = NLMSG_NEXT(header, length)) {
      if (header->nlmsg_seq != sequence) continue;
      if (header->nlmsg_type == NLMSG_DONE) return out;
      if (header->nlmsg_type == NLMSG_ERROR) {
        const auto* error = reinterpret_cast<const nlmsgerr*>(NLMSG_DATA(header));
        if (error->error != 0) return std::unexpected(netlinkError(-error->error, "dump"));
        continue;
      }
      const auto* begin = reinterpret_cast<const std::uint8_t*>(header);
      out.emplace_back(begin, begin + header->nlmsg_len);
    }
  }
}

std::expected<void, Error> RouteNetlink::setLinkUp(int index, int mtu) {
  MessageBuilder builder(RTM_NEWLINK, NLM_F_ACK);
  ifinfomsg body{};
  body.ifi_family = kAnyFamily;
  body.ifi_index = index;
  body.ifi_flags = IFF_UP;
  body.ifi_change = IFF_UP;
  builder.fixed(body);
  builder.u32(IFLA_MTU, static_cast<std::uint32_t>(mtu));
  std::vector<Message> messages;
  messages.push_back({builder.finish(0), fmt::format("link {} up mtu {}", index, mtu)});
  return transact(std::move(messages));
}

std::expected<void, Error> RouteNetlink::deleteLink(int index) {
  MessageBuilder builder(RTM_DELLINK, NLM_F_ACK);
  ifinfomsg body{};
  body.ifi_family = kAnyFamily;
  body.ifi_index = index;
  builder.fixed(body);
  std::vector<Message> messages;
  messages.push_back({builder.finish(0), fmt::format("link {} delete", index)});
  return transact(std::move(messages), /*ignoreMissing=*/true);
}

std::expected<void, Error> RouteNetlink::addAddress(int index, const IpPrefix& address) {
  MessageBuilder builder(RTM_NEWADDR, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE);
  ifaddrmsg body{};
  body.ifa_family = static_cast<std::uint8_t>(address.address.family);
  body.ifa_prefixlen = static_cast<std::uint8_t>(address.length);
  // No duplicate address detection on a point-to-point tunnel: the address is usable at once.
  body.ifa_flags = address.address.isV4() ? 0 : IFA_F_NODAD;
  body.ifa_index = static_cast<std::uint32_t>(index);
  builder.fixed(body);
  const auto length = static_cast<std::size_t>(address.address.byteLength());
  builder.attribute(IFA_LOCAL, address.address.bytes.data(), length);
  builder.attribute(IFA_ADDRESS, address.address.bytes.data(), length);
  std::vector<Message> messages;
  messages.push_back({builder.finish(0), fmt::format("address {} on link {}", address.toString(), index)});
  return transact(std::move(messages));
}

std::expected<void, Error> RouteNetlink::addRoutes(std::uint32_t table, int index,
                                                   std::span<const PlannedRoute> routes) {
  std::vector<Message> messages;
  messages.reserve(routes.size());
  for (const PlannedRoute& route : routes) {
    MessageBuilder builder(RTM_NEWROUTE, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE);
    rtmsg body{};
    body.rtm_family = static_cast<std::uint8_t>(route.prefix.address.family);
    body.rtm_dst_len = static_cast<std::uint8_t>(route.prefix.length);
    body.rtm_table = table < 256 ? static_cast<std::uint8_t>(table) : kTableInAttribute;
    body.rtm_protocol = RTPROT_STATIC;
    body.rtm_scope = route.bypass ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
    body.rtm_type = route.bypass ? RTN_THROW : RTN_UNICAST;
    builder.fixed(body);
    builder.u32(RTA_TABLE, table);
    if (route.prefix.length > 0) {
      builder.attribute(RTA_DST, route.prefix.address.bytes.data(),
                        static_cast<std::size_t>(route.prefix.address.byteLength()));
    }
    if (!route.bypass) builder.u32(RTA_OIF, static_cast<std::uint32_t>(index));
    messages.push_back({builder.finish(0), fmt::format("route {}{} table {}", route.bypass ? "throw " : "",
                                                       route.prefix.toString(), table)});
  }
  return transact(std::move(messages), /*ignoreMissing=*/false, /*acknowledgeLastOnly=*/true);
}

std::expected<std::size_t, Error> RouteNetlink::flushTable(int family, std::uint32_t table) {
  auto routes = dump(RTM_GETROUTE, family);
  if (!routes) return std::unexpected(routes.error());
  std::vector<Message> messages;
  for (const auto& message : *routes) {
    if (message.size() < NLMSG_HDRLEN + sizeof(rtmsg)) continue;
    rtmsg route{};
    std::memcpy(&route, message.data() + NLMSG_HDRLEN, sizeof route);
    const auto attrs = attributes(message, sizeof(rtmsg));
    const std::uint32_t routeTable = u32Attribute(attrs, RTA_TABLE).value_or(route.rtm_table);
    if (routeTable != table || route.rtm_family != family) continue;
    MessageBuilder builder(RTM_DELROUTE, NLM_F_ACK);
    rtmsg body{};
    body.rtm_family = route.rtm_family;
    body.rtm_dst_len = route.rtm_dst_len;
    body.rtm_table = route.rtm_table;
    body.rtm_type = route.rtm_type;
    body.rtm_scope = RT_SCOPE_NOWHERE;
    builder.fixed(body);
    builder.u32(RTA_TABLE, table);
    if (auto dst = attrs.find(RTA_DST); dst != attrs.end())
      builder.attribute(RTA_DST, dst->second.first, dst->second.second);
    messages.push_back({builder.finish(0), fmt::format("delete route from table {}", table)});
  }
  const std::size_t count = messages.size();
  if (auto done = transact(std::move(messages), /*ignoreMissing=*/true, /*acknowledgeLastOnly=*/true); !done) {
    return std::unexpected(done.error());
  }
  return count;
}

namespace {

// A rule's request: adding and deleting one name it by the same header and attributes.
std::vector<std::uint8_t> ruleMessage(std::uint16_t type, std::uint16_t flags, const RoutingRule& rule) {
  MessageBuilder builder(type, flags);
  fib_rule_hdr body{};
  body.family = static_cast<std::uint8_t>(rule.family);
  body.table = rule.table < 256 ? static_cast<std::uint8_t>(rule.table) : kTableInAttribute;
  body.action = FR_ACT_TO_TBL;
  body.flags = rule.invert ? FIB_RULE_INVERT : 0;
  if (rule.destination) body.dst_len = static_cast<std::uint8_t>(rule.destination->length);
  builder.fixed(body);
  if (rule.destination) {
    builder.attribute(FRA_DST, rule.destination->address.bytes.data(),
                      static_cast<std::size_t>(rule.destination->address.byteLength()));
  }
  builder.u32(FRA_PRIORITY, rule.priority);
  builder.u32(FRA_TABLE, rule.table);
  if (rule.firewallMark) {
    builder.u32(FRA_FWMARK, *rule.firewallMark);
    builder.u32(FRA_FWMASK, 0xFFFFFFFFu);
  }
  if (rule.suppressPrefixLength) builder.u32(FRA_SUPPRESS_PREFIXLEN, *rule.suppressPrefixLength);
  return builder.finish(0);
}

}  // namespace

std::expected<void, Error> RouteNetlink::addRule(const RoutingRule& rule) {
  std::vector<Message> messages;
  messages.push_back({ruleMessage(RTM_NEWRULE, NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL, rule), describeRule(rule)});
  return transact(std::move(messages));
}

std::expected<void, Error> RouteNetlink::deleteRule(const RoutingRule& rule) {
  std::vector<Message> messages;
  messages.push_back({ruleMessage(RTM_DELRULE, NLM_F_ACK, rule), "delete " + describeRule(rule)});
  return transact(std::move(messages), /*ignoreMissing=*/true);
}

std::expected<std::vector<RoutingRule>, Error> RouteNetlink::listRules(int family) {
  auto rules = dump(RTM_GETRULE, family);
  if (!rules) return std::unexpected(rules.error());
  std::vector<RoutingRule> out;
  for (const auto& message : *rules) {
    if (message.size() < NLMSG_HDRLEN + sizeof(fib_rule_hdr)) continue;
    fib_rule_hdr header{};
    std::memcpy(&header, message.data() + NLMSG_HDRLEN, sizeof header);
    const auto attrs = attributes(message, sizeof(fib_rule_hdr));
    RoutingRule rule;
    rule.family = header.family;
    rule.priority = u32Attribute(attrs, FRA_PRIORITY).value_or(0);
    rule.table = u32Attribute(attrs, FRA_TABLE).value_or(header.table);
    rule.firewallMark = u32Attribute(attrs, FRA_FWMARK);
    rule.invert = (header.flags & FIB_RULE_INVERT) != 0;
    if (auto suppress = u32Attribute(attrs, FRA_SUPPRESS_PREFIXLEN); suppress && *suppress != 0xFFFFFFFFu) {
      rule.suppressPrefixLength = suppress;
    }
    if (auto dst = attrs.find(FRA_DST); dst != attrs.end()) {
      IpPrefix prefix;
      prefix.address.family = header.family;
      prefix.length = header.dst_len;
      if (dst->second.second == static_cast<std::size_t>(prefix.address.byteLength())) {
        std::memcpy(prefix.address.bytes.data(), dst->second.first, dst->second.second);
        rule.destination = prefix;
      }
    }
    out.push_back(rule);
  }
  return out;
}

}  // namespace norvik::tunnel_helper
