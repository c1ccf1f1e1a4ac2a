#pragma once

#include <expected>
#include <string>
#include <string_view>

namespace norvik {

// A domain the user typed, made fit for the tunnel: `ascii` is the lower-case ASCII form the
// tunnel matches against (internationalised labels in their "xn--" form), `display` the same
// name as the user reads it ("пример.рф").
struct DomainName {
  std::string display;
  std::string ascii;
  bool operator==(const DomainName&) const = default;
};

// Reads one domain: surrounding spaces, letter case and trailing dots are normalised away;
// internationalised names go through IDNA2008 (UTS #46 mapping). Refused, with the reason for the
// log: schemes, paths, ports, user names, inner spaces and control characters, bad UTF-8, single
// labels ("localhost"), empty or over-long labels (63) and names (253), labels with characters
// outside letters, digits and inner hyphens, and a numeric last label (an IP address is no
// domain).
[[nodiscard]] std::expected<DomainName, std::string> parseDomainName(std::string_view text);

}  // namespace norvik
