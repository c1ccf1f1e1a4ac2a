#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"

namespace norvik {

// One name look-up through chosen resolvers rather than the system's.
struct DnsQuery {
  std::string host;
  // Resolver addresses as text ("77.88.8.8"), asked in this order.
  std::vector<std::string> servers{};
  // For the whole look-up, every resolver included.
  std::chrono::milliseconds timeout{std::chrono::seconds(3)};
};

// The host's IPv4 addresses as text, in the resolver's order; an error when no resolver answered
// or the name has none.
using DnsResult = std::expected<std::vector<std::string>, Error>;
using DnsCompletion = std::move_only_function<void(DnsResult)>;

// Name look-ups through resolvers the caller names: the health probes ask public resolvers
// directly when the system's resolver may itself depend on the tunnel. Any thread may call
// resolve(); the completion runs on the main loop, exactly once.
class DnsResolver {
 public:
  static constexpr std::string_view kErrorDomain = "DnsResolver";
  enum class ErrorCode : int {
    noUsableServer = 1,  // none of the servers is an address this resolver can ask
    noAnswer = 2,        // every server failed or timed out
    noAddress = 3,       // the name does not exist, or has no IPv4 address
  };

  virtual ~DnsResolver() = default;
  virtual void resolve(DnsQuery query, DnsCompletion completion) = 0;
};

}  // namespace norvik
