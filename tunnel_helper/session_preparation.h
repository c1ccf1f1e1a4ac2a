#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/error.h"
#include "tunnel_helper/ip_prefix.h"
#include "tunnel_helper/tunnel_session.h"
#include "tunnel_helper/tunnel_settings.h"

namespace norvik::tunnel_helper {

// Looks up the addresses of a host name. The production one asks the system's resolver.
using HostResolver = std::function<std::expected<std::vector<IpAddress>, std::string>(const std::string& host)>;

// getaddrinfo with a time limit per lookup: a lookup that takes longer is given up (its thread
// finishes on its own).
[[nodiscard]] HostResolver systemResolver(std::chrono::milliseconds timeout);

// Looks up many names at once, at most `parallel` at a time, and stops starting new lookups once
// `budget` has passed. Answers every address found; names that did not resolve are counted.
struct ResolvedNames {
  std::vector<IpAddress> addresses;
  std::size_t failed = 0;
};
[[nodiscard]] ResolvedNames resolveAll(const std::vector<std::string>& names, const HostResolver& resolve,
                                       std::size_t parallel, std::chrono::milliseconds budget);

struct Preparation {
  PreparedSession session;
  TunnelSettings settings;
  std::vector<std::string> notes;  // for the log
};

// Everything a session needs, checked and worked out before the system is touched: the key text
// and extras are read (a bad key text is configurationInvalid), each peer's endpoint is resolved (a
// name that does not resolve is connectionFailed), the watch domains are resolved for the services
// mode, and the routing plan and the device configuration are made. The smart mode's GeoIP list is
// only named in the plan (`bypassList`): it is read once the tunnel is connected.
[[nodiscard]] std::expected<Preparation, Error> prepareSession(const nlohmann::json& configuration,
                                                               const HostResolver& resolve);

}  // namespace norvik::tunnel_helper
