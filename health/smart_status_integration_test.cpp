// The health engine against the local backend: the policy comes from the backend's "smart_status"
// over real TLS, the probes are real HTTPS (libcurl) to loopback servers, and the tunnel is the
// simulated one. The engine's own time is virtual; the network is real and answers at once.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "health/device_clock_check.h"
#include "health/health_probes.h"
#include "health/physical_path_monitor.h"
#include "health/smart_status_engine.h"
#include "health/smart_status_policy_store.h"
#include "platform/files.h"
#include "platform/linux/curl_http_transport.h"
#include "platform/simulated_tunnel_service.h"
#include "testing/direct_tunnel_intents.h"
#include "testing/fake_named_notifications.h"
#include "testing/fake_physical_path_source.h"
#include "testing/loopback_https_server.h"
#include "testing/temp_dir.h"
#include "tools/devbackend/dev_backend.h"
#include "tools/devbackend/devbackend_test_support.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Case = SmartStatusHealth::Case;
using devbackend::testsupport::Device;

testing::ServerReply noContent(const testing::ServerRequest&) { return testing::ServerReply{204, "", "text/plain"}; }

TEST(SmartStatusIntegrationTest, TheBackendsPolicyDrivesRealProbesAndAForeignServerGoingDownIsAWhitelist) {
  testing::TempDir dir;
  devbackend::testsupport::ManualClock serverClock;
  testing::CapturingLog serverLog;
  auto ru = std::make_unique<testing::LoopbackHttpsServer>();
  auto foreign = std::make_unique<testing::LoopbackHttpsServer>();
  ru->setHandler(&noContent);
  foreign->setHandler(&noContent);

  devbackend::DevBackendOptions options;
  options.stateDir = dir / "backend";
  options.clock = &serverClock;
  options.log = &serverLog;
  // The foreign server also stands behind the tunnel, as the global endpoints do by default.
  options.smartStatus = {{"enabled", true},
                         {"probe_ru_urls", {ru->url("/generate_204")}},
                         {"probe_foreign_urls", {foreign->url("/generate_204")}},
                         {"probe_tunnel_urls", {foreign->url("/generate_204")}},
                         {"recheck_after_problem_ms", 10000}};
  auto backend = devbackend::DevBackend::start(options);
  ASSERT_TRUE(backend.has_value()) << backend.error().message;

  // One trust file for the backend's CA and both probe servers' CAs.
  std::string cas;
  for (const auto& file : {(*backend)->caFile(), ru->caFile(), foreign->caFile()}) cas += readFile(file).value_or("");
  ASSERT_TRUE(writeFileAtomically(dir / "cas.pem", cas).has_value());

  Device device((*backend)->provisioning());
  auto& loop = device.loop;
  auto http = CurlHttpTransport::create(loop, {dir / "cas.pem"}).value();
  NetworkService network = device.service(*http, (*backend)->apiURL());
  testing::CapturingAnalytics analytics;
  testing::MemoryDefaults group;
  testing::FakeNamedNotifications notifications{loop};
  SimulatedTunnelService tunnels{loop, device.clock, device.log, &notifications, {}};
  VPNManager vpn{{loop, tunnels, notifications, group, device.defaults, device.clock, device.log, analytics}};
  testing::FakePhysicalPathSource paths;  // no path known: the probes take the routing table's way
  PhysicalPathMonitor pathMonitor{paths, device.log};
  SmartStatusPolicyStore store{device.log, device.defaults, device.clock, &pathMonitor};
  DeviceClockCheck clockCheck{loop, device.log};
  HttpHealthProbes probes{{loop, *http, device.clock, device.log, nullptr, &pathMonitor, &clockCheck}};
  testing::DirectTunnelIntents intents{loop, vpn};
  SmartStatusEngine engine{{loop, device.clock, device.log, analytics, device.defaults, store, vpn, intents, tunnels,
                            probes, &pathMonitor, &clockCheck, [] { return std::int64_t{1}; },
                            &network.currentResponse()}};
  std::vector<SmartStatusDialogRequest> dialogs;
  auto dialogWatch = engine.dialogRequested().subscribe([&](const auto& d) { dialogs.push_back(d); });

  vpn.start();
  store.follow(network.currentResponse());
  engine.start();
  bool loaded = false;
  network.loadMainConfiguration([&](const auto& result) { loaded = result.has_value(); });
  ASSERT_TRUE(loop.runUntil([&] { return loaded; }, 1min));
  ASSERT_TRUE(store.policy().get().enabled);
  ASSERT_EQ(store.policy().get().probeTunnelUrls.front().url, foreign->url("/generate_204"));

  bool installed = false;
  vpn.installKey("[Interface]\nPrivateKey = a2V5\n[Peer]\nEndpoint = 203.0.113.10:51820",
                 [&](auto r) { installed = r.has_value(); });
  ASSERT_TRUE(loop.runUntil([&] { return installed; }, 1min));
  vpn.connect([](auto) {});
  ASSERT_TRUE(loop.runUntil([&] { return engine.health().get().kind() == Case::protected_; }, 1min));
  EXPECT_TRUE(device.defaults.contains("smartStatusLastVerifiedAtMs"));
  EXPECT_EQ(foreign->requests().size(), 1u) << "the probe through the tunnel";

  // The foreign side goes dark: the tunnel probe fails, the repairs do not help, and the probes
  // outside find only the Russian server.
  foreign.reset();
  engine.recheck();
  ASSERT_TRUE(loop.runUntil([&] { return engine.health().get().kind() == Case::problem; }, 5min));
  EXPECT_EQ(engine.health().get().diagnosis(), SmartStatusDiagnosis::whitelist);
  EXPECT_EQ(device.log.count("silentTunnelRestart: start"), 2u);
  EXPECT_EQ(ru->requests().size(), 1u);
  ASSERT_EQ(dialogs.size(), 1u);
  EXPECT_EQ(dialogs[0].texts.title, "Сеть ограничивает доступ");
  EXPECT_EQ(engine.statusText().get(), "Сеть ограничивает доступ");

  // Then nothing answers at all: the next recheck says so (the dialog waits for its cooldown).
  ru.reset();
  ASSERT_TRUE(
      loop.runUntil([&] { return engine.health().get().diagnosis() == SmartStatusDiagnosis::noInternet; }, 1min));
  EXPECT_EQ(engine.healthRaw().get(), "problem");
  EXPECT_EQ(dialogs.size(), 1u);
  engine.stop();
  loop.runUntilIdle();
}

}  // namespace
}  // namespace norvik
