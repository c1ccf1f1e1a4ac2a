#include "health/health_probes.h"

#include <gtest/gtest.h>

#include "health/device_clock_check.h"
#include "health/physical_path_monitor.h"
#include "testing/fake_dns_resolver.h"
#include "testing/fake_physical_path_source.h"
#include "testing/fakes.h"
#include "testing/http_fakes.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;

SmartStatusPolicy policyWith(std::vector<std::string> ru, std::vector<std::string> foreign) {
  SmartStatusConfig config;
  config.enabled = true;
  config.probeRuUrls = std::move(ru);
  config.probeForeignUrls = std::move(foreign);
  config.probeTunnelUrls = std::vector<std::string>{"https://tunnel.example/generate_204"};
  return resolveSmartStatusPolicy(config);
}

class HttpHealthProbesTest : public ::testing::Test {
 protected:
  HttpHealthProbesTest() {
    NetworkPath path;
    path.status = NetworkPathStatus::satisfied;
    path.availableInterfaces = {{"wlan0", NetworkInterfaceType::wifi, 3}};
    paths.setPath(path);
    monitor.start([](const PhysicalPath&) {});
    // Hosts whose name ends in ".up" answer 204; everything else cannot be reached.
    http.setHandler([](const HttpRequest& request) -> HttpResult {
      if (request.url.find(".up/") != std::string::npos) return HttpResponse{204, {}, ""};
      return std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::cannotConnect));
    });
    http.setLatency(100ms);
  }
  ~HttpHealthProbesTest() override { monitor.stop(); }

  OutsideProbeResult outside(const SmartStatusPolicy& policy) {
    std::optional<OutsideProbeResult> result;
    int calls = 0;
    probes.probeOutside(policy, [&](OutsideProbeResult r) {
      result = r;
      ++calls;
    });
    loop.advance(30s);
    EXPECT_EQ(calls, 1);
    return result.value_or(OutsideProbeResult{});
  }

  testing::VirtualEventLoop loop;
  testing::VirtualClock clock{loop};
  testing::CapturingLog log;
  FakeHttpTransport http{loop};
  testing::FakeDnsResolver dns{loop};
  testing::FakePhysicalPathSource paths;
  PhysicalPathMonitor monitor{paths, log};
  DeviceClockCheck clockCheck{loop, log};
  std::set<std::string> interfaces{"wlan0", "wg0"};
  HttpHealthProbes probes{{loop, http, clock, log, &dns, &monitor, &clockCheck,
                           [this](const std::string& name) { return interfaces.contains(name); }}};
};

TEST_F(HttpHealthProbesTest, EachListIsReachedWhenOneOfItsAddressesAnswersThroughThePhysicalInterface) {
  const auto policy = policyWith({"https://a.down/x", "https://b.up/"}, {"https://c.down/", "https://d.down/"});
  EXPECT_EQ(outside(policy), (OutsideProbeResult{true, false}));
  ASSERT_EQ(http.sent().size(), 4u);
  for (const auto& sent : http.sent()) {
    EXPECT_EQ(sent.request.interfaceName, "wlan0");
    EXPECT_TRUE(sent.request.freshConnection);
    EXPECT_EQ(sent.request.timeout, 3000ms);
    EXPECT_TRUE(sent.request.pinnedAddresses.empty()) << "no bypass unless enabled";
  }
  EXPECT_TRUE(log.hasLine("[SmartStatus] probes outside: ru=true foreign=false (100ms, via wlan0)"));
}

TEST_F(HttpHealthProbesTest, AnAnswerLaterThanTheTimeOutDoesNotCount) {
  auto policy = policyWith({"https://a.up/"}, {"https://b.up/"});
  policy.probeTimeoutMs = 500;
  http.setLatency(501ms);
  std::optional<OutsideProbeResult> result;
  probes.probeOutside(policy, [&](OutsideProbeResult r) { result = r; });
  loop.advance(499ms);
  EXPECT_FALSE(result.has_value());
  loop.advance(1ms);
  EXPECT_EQ(result, (OutsideProbeResult{false, false}));
  loop.advance(10ms);  // the late answers arrive and change nothing
  EXPECT_EQ(result, (OutsideProbeResult{false, false}));
}

TEST_F(HttpHealthProbesTest, TheBypassTriesPinnedAndSeparatelyResolvedAddressesToo) {
  SmartStatusConfig config;
  config.enabled = true;
  config.probeRuUrls = std::vector<std::string>{"https://ru.down/", "https://gone.down:8443/x"};
  config.probeForeignUrls = std::vector<std::string>{"https://pinned.down/"};
  config.probeBypassEnabled = true;
  config.probeBypassDns = std::vector<std::string>{"77.88.8.8", "77.88.8.1"};
  config.probeBypassPins =
      std::map<std::string, std::vector<std::string>>{{"pinned.down", {"192.0.2.7", "2001:db8::7"}}};
  const auto policy = resolveSmartStatusPolicy(config);
  dns.answer("ru.down", {"198.51.100.1"});
  // The pinned or resolved address is where the answer comes from this time.
  http.setHandler([](const HttpRequest& request) -> HttpResult {
    if (!request.pinnedAddresses.empty()) return HttpResponse{204, {}, ""};
    return std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::hostNotFound));
  });

  EXPECT_EQ(outside(policy), (OutsideProbeResult{true, true}));
  std::vector<std::vector<std::string>> pins;
  for (const auto& sent : http.sent()) {
    if (!sent.request.pinnedAddresses.empty()) pins.push_back(sent.request.pinnedAddresses);
  }
  EXPECT_EQ(pins, (std::vector<std::vector<std::string>>{{"pinned.down:443:192.0.2.7,[2001:db8::7]"},
                                                         {"ru.down:443:198.51.100.1"}}));
  ASSERT_EQ(dns.queries().size(), 2u) << "pinned hosts are not looked up";
  EXPECT_EQ(dns.queries()[0].servers, (std::vector<std::string>{"77.88.8.8", "77.88.8.1"}));
  EXPECT_EQ(dns.queries()[0].timeout, 1500ms);
  EXPECT_EQ(http.sent().size(), 5u) << "three plain requests and two bypass ones, one name not resolved";
}

TEST_F(HttpHealthProbesTest, TheTunnelProbeBindsToTheTunnelsInterfaceOnlyWhenItExists) {
  const auto policy = policyWith({"https://a.up/"}, {"https://b.up/"});
  std::vector<bool> results;
  probes.probeTunnel(policy, "wg0", [&](bool reached) { results.push_back(reached); });
  probes.probeTunnel(policy, "norvik0", [&](bool reached) { results.push_back(reached); });
  loop.advance(5s);
  EXPECT_EQ(results, (std::vector<bool>{false, false}));
  ASSERT_EQ(http.sent().size(), 2u);
  EXPECT_EQ(http.sent()[0].request.interfaceName, "wg0");
  EXPECT_EQ(http.sent()[0].request.timeout, 4000ms);
  EXPECT_EQ(http.sent()[1].request.interfaceName, std::nullopt);
}

TEST_F(HttpHealthProbesTest, TheInternetCheckEndsAtTheFirstAnswer) {
  const auto policy = policyWith({"https://a.down/"}, {"https://b.up/", "https://c.down/"});
  http.setHandler([](const HttpRequest& request) -> HttpResult {
    if (request.url.find(".up/") != std::string::npos) return HttpResponse{204, {}, ""};
    return std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::timedOut));
  });
  std::optional<bool> reached;
  probes.probeInternet(policy, [&](bool r) { reached = r; });
  loop.advance(100ms);
  EXPECT_EQ(reached, true);
}

TEST_F(HttpHealthProbesTest, EveryAnswerAndCertificateFailureFeedsTheClockCheck) {
  const auto policy = policyWith({"https://a.up/"}, {"https://b.down/"});
  http.setHandler([](const HttpRequest& request) -> HttpResult {
    if (request.url.find(".up/") == std::string::npos) {
      auto failure = FakeHttpTransport::failure(NetworkErrorKind::other);
      failure.certificateOutOfDate = true;
      return std::unexpected(failure);
    }
    return HttpResponse{204, {{"Date", "Fri, 15 Jan 2027 08:00:00 GMT"}}, ""};
  });
  outside(policy);
  EXPECT_TRUE(clockCheck.wrong().get());
  EXPECT_TRUE(log.contains("[Clock] часы устройства сбиты"));
}

}  // namespace
}  // namespace norvik
