#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/error.h"
#include "tunnel_helper/ip_prefix.h"
#include "tunnel_helper/routing_plan.h"

namespace norvik::tunnel_helper {

// A routing policy rule, as far as the tunnel uses them: "[to P] [not] fwmark M lookup T" and
// "lookup T suppress_prefixlength N", at a priority.
struct RoutingRule {
  int family = AF_INET;
  std::uint32_t priority = 0;
  std::uint32_t table = 0;
  std::optional<std::uint32_t> firewallMark;  // with a full mask
  bool invert = false;                        // "not": the rule applies to what does not match
  std::optional<std::uint32_t> suppressPrefixLength;
  std::optional<IpPrefix> destination;  // "to P"
  bool operator==(const RoutingRule&) const = default;
};

// The kernel's routing configuration over an rtnetlink socket: links, addresses, routes, rules.
// Every change waits for the kernel's acknowledgement; many routes go in batches, so that tens of
// thousands of them take a fraction of a second. Errors are POSIX errors naming the change.
//
// Threading: one thread at a time. Move-only; the socket closes with the object.
class RouteNetlink {
 public:
  [[nodiscard]] static std::expected<RouteNetlink, Error> open();
  RouteNetlink(RouteNetlink&& other) noexcept;
  RouteNetlink& operator=(RouteNetlink&& other) noexcept;
  RouteNetlink(const RouteNetlink&) = delete;
  RouteNetlink& operator=(const RouteNetlink&) = delete;
  ~RouteNetlink();

  [[nodiscard]] std::expected<void, Error> setLinkUp(int index, int mtu);
  [[nodiscard]] std::expected<void, Error> deleteLink(int index);
  [[nodiscard]] std::expected<void, Error> addAddress(int index, const IpPrefix& address);
  // Routes into `table`: through the link `index`, or "throw" for bypass entries. A route already
  // there for the same prefix is replaced.
  [[nodiscard]] std::expected<void, Error> addRoutes(std::uint32_t table, int index,
                                                     std::span<const PlannedRoute> routes);
  // Removes every route of `table` in `family`; answers how many there were.
  [[nodiscard]] std::expected<std::size_t, Error> flushTable(int family, std::uint32_t table);
  [[nodiscard]] std::expected<void, Error> addRule(const RoutingRule& rule);
  [[nodiscard]] std::expected<void, Error> deleteRule(const RoutingRule& rule);
  [[nodiscard]] std::expected<std::vector<RoutingRule>, Error> listRules(int family);

 private:
  explicit RouteNetlink(int fd) : fd_(fd) {}

  struct Message {
    std::vector<std::uint8_t> bytes;
    std::string what;  // names the change in errors
  };
  [[nodiscard]] std::expected<void, Error> transact(std::vector<Message> messages, bool ignoreMissing = false,
                                                    bool acknowledgeLastOnly = false);
  [[nodiscard]] std::expected<std::vector<std::vector<std::uint8_t>>, Error> dump(std::uint16_t type, int family);

  int fd_ = -1;
  std::uint32_t sequence_ = 1;
};

}  // namespace norvik::tunnel_helper
