// Any bytes as the tunnel helper's key text (and as a device's answer): reading never crashes,
// what is accepted stays within the bounds, every prefix prints back to itself, a refusal names a
// line that exists, and the device configuration can always be written for an accepted key.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tunnel_helper/tunnel_key.h"
#include "tunnel_helper/uapi.h"

using namespace norvik::tunnel_helper;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)parseUapiGetResponse(text);
  (void)parseEndpoint(text);
  auto key = parseTunnelKey(text);
  if (!key) {
    const auto lines = static_cast<int>(std::ranges::count(text, '\n')) + 1;
    if (key.error().line < 0 || key.error().line > lines || key.error().message.empty()) std::abort();
    return 0;
  }
  if (key->peers.empty() || key->peers.size() > kMaxPeers) std::abort();
  if (key->interface.addresses.empty() || key->interface.addresses.size() > kMaxAddresses) std::abort();
  if (key->interface.mtu && (*key->interface.mtu < kMinMtu || *key->interface.mtu > kMaxMtu)) std::abort();
  std::vector<ResolvedEndpoint> endpoints;
  for (const TunnelPeer& peer : key->peers) {
    if (peer.allowedIPs.empty() || peer.endpoint.port == 0) std::abort();
    for (const IpPrefix& prefix : peer.allowedIPs) {
      if (IpPrefix::parse(prefix.toString()) != prefix || prefix.masked() != prefix) std::abort();
    }
    endpoints.push_back({*IpAddress::parse("10.0.0.1"), peer.endpoint.port});
  }
  const std::string request = uapiSetRequest(*key, endpoints, 1);
  if (!request.starts_with("set=1\n") || !request.ends_with("\n\n")) std::abort();
  return 0;
}
