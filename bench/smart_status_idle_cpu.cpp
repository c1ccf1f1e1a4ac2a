// What the health engine costs while a tunnel is protected, on the production loop.
//
// Runs the engine with the default intervals over the simulated tunnel, with real HTTPS probes to a
// loopback server standing behind the "tunnel" (in a child process, so that its side of TLS is not
// counted), waits until the tunnel is protected, then measures the process's CPU time (user +
// system) over the given number of seconds. "--off" runs the same process with the policy off, for
// the baseline of the loop and the simulated tunnel alone.
//
//   build-engine/bench/smart_status_idle_cpu 60
//   build-engine/bench/smart_status_idle_cpu 60 --off
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include <nlohmann/json.hpp>

#include "health/device_clock_check.h"
#include "health/health_probes.h"
#include "health/physical_path_monitor.h"
#include "health/smart_status_engine.h"
#include "health/smart_status_policy_store.h"
#include "platform/linux/asio_event_loop.h"
#include "platform/linux/curl_http_transport.h"
#include "platform/linux/system_clock.h"
#include "platform/simulated_tunnel_service.h"
#include "testing/direct_tunnel_intents.h"
#include "testing/fake_named_notifications.h"
#include "testing/fake_physical_path_source.h"
#include "testing/fakes.h"
#include "testing/loopback_https_server.h"

using namespace norvik;

namespace {

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 60;
  if (argc > 1) {
    const std::string_view given = argv[1];
    if (std::from_chars(given.data(), given.data() + given.size(), seconds).ec != std::errc{} || seconds < 1) {
      (void)std::fprintf(stderr, "usage: smart_status_idle_cpu [SECONDS] [--off]\n");
      return 2;
    }
  }
  const bool off = argc > 2 && std::strcmp(argv[2], "--off") == 0;

  // The server lives in a child until the parent closes the pipe; it reports its URL and CA file.
  int toParent[2], toChild[2];
  if (pipe(toParent) != 0 || pipe(toChild) != 0) return 1;
  const pid_t child = fork();
  if (child == 0) {
    close(toParent[0]);
    close(toChild[1]);
    norvik::testing::LoopbackHttpsServer server;
    server.setHandler([](const norvik::testing::ServerRequest&) {
      return norvik::testing::ServerReply{204, "", "text/plain"};
    });
    const std::string facts = server.url("/generate_204") + "\n" + server.caFile().string() + "\n";
    if (write(toParent[1], facts.data(), facts.size()) < 0) _exit(1);
    char byte;
    while (read(toChild[0], &byte, 1) > 0) {
    }
    _exit(0);
  }
  close(toParent[1]);
  close(toChild[0]);
  std::string facts;
  char buffer[512];
  for (ssize_t n;
       std::count(facts.begin(), facts.end(), '\n') < 2 && (n = read(toParent[0], buffer, sizeof buffer)) > 0;) {
    facts.append(buffer, static_cast<std::size_t>(n));
  }
  const std::string probeUrl = facts.substr(0, facts.find('\n'));
  const std::string caFile = facts.substr(facts.find('\n') + 1, facts.rfind('\n') - facts.find('\n') - 1);
  int probesServed = 0;

  AsioEventLoop loop;
  SystemClock clock;
  norvik::testing::CapturingLog log;
  norvik::testing::CapturingAnalytics analytics;
  norvik::testing::MemoryDefaults standard, group;
  norvik::testing::FakeNamedNotifications notifications{loop};
  SimulatedTunnelService tunnels{loop, clock, log, &notifications, {}};
  VPNManager vpn{{loop, tunnels, notifications, group, standard, clock, log, analytics}};
  norvik::testing::FakePhysicalPathSource paths;
  PhysicalPathMonitor pathMonitor{paths, log};
  SmartStatusPolicyStore store{log, standard, clock, &pathMonitor};
  DeviceClockCheck clockCheck{loop, log};
  auto http = CurlHttpTransport::create(loop, {caFile}).value();
  HttpHealthProbes probes{{loop, *http, clock, log, nullptr, &pathMonitor, &clockCheck}};
  norvik::testing::DirectTunnelIntents intents{loop, vpn};
  SmartStatusEngine engine{
      {loop, clock, log, analytics, standard, store, vpn, intents, tunnels, probes, &pathMonitor, &clockCheck}};

  MainConfig main;
  main.smartStatus = nlohmann::json{{"enabled", !off}, {"probe_tunnel_urls", {probeUrl}}};
  store.accept(main);
  vpn.start();
  engine.start();

  double startCpu = 0;
  auto measure = [&] {
    startCpu = cpuSeconds();
    loop.postAfter(std::chrono::seconds(seconds), [&] { loop.stop(); });
  };
  vpn.installKey("[Interface]\nPrivateKey = a2V5\n[Peer]\nEndpoint = 203.0.113.10:51820", [&](auto installed) {
    if (!installed) return loop.stop();
    vpn.connect([](auto) {});
  });
  Subscription ready;
  if (off) {
    ready = vpn.connectionState().subscribe([&](const TunnelStatus& s) {
      if (s == TunnelStatus::connected) measure();
    });
  } else {
    ready = engine.health().subscribe([&](const SmartStatusHealth& h) {
      if (h.kind() == SmartStatusHealth::Case::protected_ && startCpu == 0) measure();
    });
  }
  loop.run();
  const double used = cpuSeconds() - startCpu;
  loop.joinWorkers();
  probesServed = static_cast<int>(log.count("[SmartStatus] probe tunnel: reached=true"));
  close(toChild[1]);
  waitpid(child, nullptr, 0);
  if (startCpu == 0) {
    (void)std::fprintf(stderr, "the tunnel never became %s\n", off ? "connected" : "protected");
    return 1;
  }
  std::printf("policy=%s seconds=%d cpu_ms=%.2f share_of_one_core=%.4f%% windows=%zu tunnel_probes_reached=%d\n",
              off ? "off" : "on", seconds, used * 1000, used / seconds * 100, log.count("[SmartStatus] окно проверки:"),
              probesServed);
  return 0;
}
