#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "health/smart_status_policy.h"
#include "platform/clock.h"
#include "platform/dns_resolver.h"
#include "platform/event_loop.h"
#include "platform/http_transport.h"
#include "platform/log.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

class DeviceClockCheck;
class PhysicalPathMonitor;

// What the probes outside the tunnel found: whether any address of each list answered.
struct OutsideProbeResult {
  bool ruReachable = false;
  bool foreignReachable = false;
  bool operator==(const OutsideProbeResult&) const = default;
};

// The health check's network probes. Every call completes on the main loop exactly once, within
// the policy's time-out for that probe (a late answer is dropped), unless the probes object is
// destroyed first.
class HealthProbes {
 public:
  using OutsideDone = std::move_only_function<void(OutsideProbeResult)>;
  using ReachedDone = std::move_only_function<void(bool)>;

  virtual ~HealthProbes() = default;

  // The Russian and the foreign lists, outside the tunnel, within `probeTimeoutMs`.
  virtual void probeOutside(const SmartStatusPolicy& policy, OutsideDone done) = 0;
  // Whether anything of the two lists answers at all; ends at the first answer (the toggle's
  // check before connecting).
  virtual void probeInternet(const SmartStatusPolicy& policy, ReachedDone done) = 0;
  // The tunnel list through the tunnel, within `probeTunnelTimeoutMs`. `tunnelInterface` is the
  // tunnel's interface as its telemetry names it, when it does.
  virtual void probeTunnel(const SmartStatusPolicy& policy, std::optional<std::string> tunnelInterface,
                           ReachedDone done) = 0;
};

// The probes over HTTPS. An address counts as reached when any HTTP answer comes back over
// verified TLS, whatever its status: the network carried the request there and back.
//
// Outside the tunnel a request leaves through the physical interface the path monitor prefers
// (the routing table decides when there is none). With `probeBypassEnabled`, every address of the
// two lists is also tried a second way that does not depend on the system's resolver, which may
// itself sit behind a broken tunnel: the host's pinned addresses from `probeBypassPins`, else the
// addresses the `probeBypassDns` resolvers give (asked within half the probe's time-out); an
// address reached either way counts. Through the tunnel a request is bound to the tunnel's
// interface when the system has one of that name; otherwise the routes of the mode in force
// carry it (a simulated tunnel has no interface).
//
// Every answer, and every TLS failure on a certificate that is not valid now, feeds the device
// clock check with the moments the request left and its answer came.
//
// Threading: a main-loop object; requests run on the transport's workers. Ownership: borrows
// everything it is given.
class HttpHealthProbes final : public HealthProbes {
 public:
  struct Dependencies {
    EventLoop& loop;
    HttpTransport& http;
    Clock& clock;
    Log& log;
    DnsResolver* resolver = nullptr;             // none: the bypass is not tried
    PhysicalPathMonitor* pathMonitor = nullptr;  // none: no interface is chosen outside
    DeviceClockCheck* clockCheck = nullptr;
    // Whether the system has an interface of this name; empty: ask the system (if_nametoindex).
    std::function<bool(const std::string&)> interfaceExists{};
  };

  explicit HttpHealthProbes(Dependencies dependencies);
  HttpHealthProbes(const HttpHealthProbes&) = delete;
  HttpHealthProbes& operator=(const HttpHealthProbes&) = delete;
  ~HttpHealthProbes() override;

  void probeOutside(const SmartStatusPolicy& policy, OutsideDone done) override;
  void probeInternet(const SmartStatusPolicy& policy, ReachedDone done) override;
  void probeTunnel(const SmartStatusPolicy& policy, std::optional<std::string> tunnelInterface,
                   ReachedDone done) override;

 private:
  struct Round;
  enum class ListKind { ru, foreign, tunnel };

  void startRound(std::shared_ptr<Round> round, const SmartStatusPolicy& policy);
  void send(const std::shared_ptr<Round>& round, ListKind list, HttpRequest request);
  void sendBypass(const std::shared_ptr<Round>& round, ListKind list, const ProbeURL& url,
                  const SmartStatusPolicy& policy);
  void onAnswer(const std::shared_ptr<Round>& round, ListKind list, const HttpResult& result, Clock::TimePoint sentAt);
  void finish(const std::shared_ptr<Round>& round);

  EventLoop& loop_;
  HttpTransport& http_;
  Clock& clock_;
  Log& log_;
  DnsResolver* resolver_;
  PhysicalPathMonitor* pathMonitor_;
  DeviceClockCheck* clockCheck_;
  std::function<bool(const std::string&)> interfaceExists_;
  WeakPtrFactory<HttpHealthProbes> weakFactory_{this};
};

}  // namespace norvik
