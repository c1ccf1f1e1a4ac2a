#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "backend/api_response.h"

namespace norvik {

// One routable service as the services screen shows it and the tunnel routes it.
struct RoutingServiceItem {
  std::string key;  // stable identifier ("youtube")
  std::string title;
  std::string subtitle;
  std::string colorHex;                   // "#RRGGBB"
  std::optional<std::string> group;       // services of one owner share a group ("meta")
  bool hasCidr = false;                   // the backend's service lists carry CIDRs for it
  std::vector<std::string> watchDomains;  // lower-case ASCII; each covers its subdomains too
  std::optional<std::string> iconURL;
  // CIDRs the routing section itself carries for the service (next to the synchronised lists).
  std::vector<std::string> inlineCidrs;
  bool operator==(const RoutingServiceItem&) const = default;
};

// The built-in catalog in display order, with each service's own public domains.
[[nodiscard]] std::span<const RoutingServiceItem> builtInCatalog();
// The selection of a first start: youtube, instagram, whatsapp, telegram.
[[nodiscard]] std::vector<std::string> defaultServiceSelection();

// The catalog for a routing section: the backend's services in its order when it sends any,
// else the built-in catalog. A backend entry fills what it leaves out from the built-in entry of
// the same key; an entry with "enabled": false is not offered; its domains are normalised like a
// custom domain, and unusable ones are dropped.
[[nodiscard]] std::vector<RoutingServiceItem> catalogFor(const RoutingConfig& routing);

}  // namespace norvik
