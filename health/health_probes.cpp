#include "health/health_probes.h"

#include <net/if.h>

#include <array>

#include <fmt/format.h>

#include "health/device_clock_check.h"
#include "health/physical_path_monitor.h"

namespace norvik {
namespace {

constexpr std::int64_t kHttpsPort = 443;

std::string boolText(bool value) { return value ? "true" : "false"; }

// curl's form of an address in a "host:port:address" pin: IPv6 in brackets.
std::string pinAddress(const std::string& address) {
  return address.find(':') != std::string::npos ? "[" + address + "]" : address;
}

std::string pinEntry(const ProbeURL& url, const std::vector<std::string>& addresses) {
  std::string entry = fmt::format("{}:{}:", url.host, url.port.value_or(kHttpsPort));
  for (std::size_t i = 0; i < addresses.size(); ++i) entry += (i ? "," : "") + pinAddress(addresses[i]);
  return entry;
}

}  // namespace

struct HttpHealthProbes::Round {
  enum class Goal { outside, any, tunnel };
  struct List {
    int pending = 0;
    int sent = 0;
    bool reached = false;
    [[nodiscard]] bool decided() const { return reached || pending == 0; }
  };

  Goal goal = Goal::outside;
  std::chrono::milliseconds timeout{};
  std::optional<std::string> interfaceName;
  EventLoop::TimePoint startedAt;
  std::array<List, 3> lists{};
  bool finished = false;
  OneShotTimer deadline;
  OutsideDone outsideDone;
  ReachedDone reachedDone;

  List& operator[](ListKind kind) { return lists[static_cast<std::size_t>(kind)]; }

  [[nodiscard]] bool complete() {
    switch (goal) {
      case Goal::outside:
        return (*this)[ListKind::ru].decided() && (*this)[ListKind::foreign].decided();
      case Goal::any:
        return (*this)[ListKind::ru].reached || (*this)[ListKind::foreign].reached ||
               ((*this)[ListKind::ru].pending == 0 && (*this)[ListKind::foreign].pending == 0);
      case Goal::tunnel:
      default:
        return (*this)[ListKind::tunnel].decided();
    }
  }
};

HttpHealthProbes::HttpHealthProbes(Dependencies d)
    : loop_(d.loop),
      http_(d.http),
      clock_(d.clock),
      log_(d.log),
      resolver_(d.resolver),
      pathMonitor_(d.pathMonitor),
      clockCheck_(d.clockCheck),
      interfaceExists_(std::move(d.interfaceExists)) {
  if (!interfaceExists_) {
    interfaceExists_ = [](const std::string& name) { return if_nametoindex(name.c_str()) != 0; };
  }
}

HttpHealthProbes::~HttpHealthProbes() = default;

void HttpHealthProbes::probeOutside(const SmartStatusPolicy& policy, OutsideDone done) {
  auto round = std::make_shared<Round>();
  round->goal = Round::Goal::outside;
  round->outsideDone = std::move(done);
  startRound(std::move(round), policy);
}

void HttpHealthProbes::probeInternet(const SmartStatusPolicy& policy, ReachedDone done) {
  auto round = std::make_shared<Round>();
  round->goal = Round::Goal::any;
  round->reachedDone = std::move(done);
  startRound(std::move(round), policy);
}

void HttpHealthProbes::probeTunnel(const SmartStatusPolicy& policy, std::optional<std::string> tunnelInterface,
                                   ReachedDone done) {
  auto round = std::make_shared<Round>();
  round->goal = Round::Goal::tunnel;
  round->reachedDone = std::move(done);
  // Bound only to an interface that exists: a tunnel without one is carried by its routes.
  if (tunnelInterface && !tunnelInterface->empty() && interfaceExists_(*tunnelInterface)) {
    round->interfaceName = std::move(tunnelInterface);
  }
  startRound(std::move(round), policy);
}

void HttpHealthProbes::startRound(std::shared_ptr<Round> round, const SmartStatusPolicy& policy) {
  const bool tunnel = round->goal == Round::Goal::tunnel;
  round->timeout = std::chrono::milliseconds(tunnel ? policy.probeTunnelTimeoutMs : policy.probeTimeoutMs);
  round->startedAt = loop_.now();
  if (!tunnel && pathMonitor_) round->interfaceName = pathMonitor_->preferredInterfaceName();

  std::weak_ptr<Round> weakRound = round;
  round->deadline.start(loop_, round->timeout, [weak = weakFactory_.weak(), weakRound] {
    auto* self = weak.lock();
    auto round = weakRound.lock();
    if (!self || !round || round->finished) return;
    self->finish(round);
  });

  auto sendList = [&](ListKind list, const std::vector<ProbeURL>& urls) {
    for (const ProbeURL& url : urls) {
      HttpRequest request{"GET", url.url, {{"Cache-Control", "no-cache"}}, "", round->timeout};
      request.interfaceName = round->interfaceName;
      request.freshConnection = true;
      send(round, list, std::move(request));
      if (!tunnel && policy.probeBypassEnabled && resolver_) sendBypass(round, list, url, policy);
    }
  };
  if (tunnel) {
    sendList(ListKind::tunnel, policy.probeTunnelUrls);
  } else {
    sendList(ListKind::ru, policy.probeRuUrls);
    sendList(ListKind::foreign, policy.probeForeignUrls);
  }
  if (!round->finished && round->complete()) finish(round);
}

void HttpHealthProbes::send(const std::shared_ptr<Round>& round, ListKind list, HttpRequest request) {
  ++(*round)[list].pending;
  ++(*round)[list].sent;
  const Clock::TimePoint sentAt = clock_.now();
  http_.send(std::move(request), [weak = weakFactory_.weak(), round, list, sentAt](HttpResult result) {
    if (auto* self = weak.lock()) self->onAnswer(round, list, result, sentAt);
  });
}

void HttpHealthProbes::sendBypass(const std::shared_ptr<Round>& round, ListKind list, const ProbeURL& url,
                                  const SmartStatusPolicy& policy) {
  auto request =
      std::make_shared<HttpRequest>(HttpRequest{"GET", url.url, {{"Cache-Control", "no-cache"}}, "", round->timeout});
  request->interfaceName = round->interfaceName;
  request->freshConnection = true;
  if (auto pins = policy.probeBypassPins.find(url.host); pins != policy.probeBypassPins.end()) {
    request->pinnedAddresses = {pinEntry(url, pins->second)};
    return send(round, list, std::move(*request));
  }
  // The look-up gets half the probe's time, the request what is left of it.
  ++(*round)[list].pending;
  DnsQuery query{url.host, policy.probeBypassDns, round->timeout / 2};
  resolver_->resolve(std::move(query), [weak = weakFactory_.weak(), round, list, url, request](DnsResult addresses) {
    auto* self = weak.lock();
    if (!self) return;
    --(*round)[list].pending;
    if (round->finished) return;
    if (!addresses) {
      self->log_.format("[SmartStatus] bypass resolve {}: {}", url.host, addresses.error().message);
    } else {
      const auto left =
          round->timeout - std::chrono::duration_cast<std::chrono::milliseconds>(self->loop_.now() - round->startedAt);
      request->timeout = std::max(left, std::chrono::milliseconds(1));
      request->pinnedAddresses = {pinEntry(url, *addresses)};
      return self->send(round, list, std::move(*request));
    }
    if (round->complete()) self->finish(round);
  });
}

void HttpHealthProbes::onAnswer(const std::shared_ptr<Round>& round, ListKind list, const HttpResult& result,
                                Clock::TimePoint sentAt) {
  if (clockCheck_) clockCheck_->reportExchange(result, sentAt, clock_.now());
  --(*round)[list].pending;
  if (result) (*round)[list].reached = true;
  if (!round->finished && round->complete()) finish(round);
}

void HttpHealthProbes::finish(const std::shared_ptr<Round>& round) {
  round->finished = true;
  round->deadline.stop();
  const auto tookMs = std::chrono::duration_cast<std::chrono::milliseconds>(loop_.now() - round->startedAt).count();
  const std::string interface = round->interfaceName.value_or("route");
  const bool ru = (*round)[ListKind::ru].reached;
  const bool foreign = (*round)[ListKind::foreign].reached;
  switch (round->goal) {
    case Round::Goal::outside:
      log_.format("[SmartStatus] probes outside: ru={} foreign={} ({}ms, via {})", boolText(ru), boolText(foreign),
                  tookMs, interface);
      if (round->outsideDone) round->outsideDone(OutsideProbeResult{ru, foreign});
      break;
    case Round::Goal::any:
      log_.format("[SmartStatus] probe internet: reached={} ({}ms, via {})", boolText(ru || foreign), tookMs,
                  interface);
      if (round->reachedDone) round->reachedDone(ru || foreign);
      break;
    case Round::Goal::tunnel:
    default: {
      const bool reached = (*round)[ListKind::tunnel].reached;
      log_.format("[SmartStatus] probe tunnel: reached={} ({}ms, via {})", boolText(reached), tookMs, interface);
      if (round->reachedDone) round->reachedDone(reached);
      break;
    }
  }
}

}  // namespace norvik
