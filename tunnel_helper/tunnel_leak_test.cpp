// Nothing leaks beside the tunnel: every packet that leaves the user's "physical" interface is
// captured (an AF_PACKET socket in the user's namespace) while the user's machine resolves names
// and sends traffic, through connect, server change, key refresh and mode changes, in full, smart
// and services mode. The moments between two tunnels (a reconnect, a killed helper) are measured
// and printed; what happens there is the design written down in docs/tunnel_helper.md ("Leaks").
// The backend serves a country-sized GeoIP list, so the smart mode is checked at real scale too.
// Runs as root only; skips otherwise.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include "tunnel_helper/tunnel_lab.h"

namespace norvik::tunnel_helper {
namespace {

using namespace std::chrono_literals;
using namespace lab;
using Clock = std::chrono::steady_clock;
using testing::waitFor;

// Datagrams from the user's side to chosen destinations: once on request, or a steady stream
// (every 10 ms to the "internet" addresses) while a transition runs.
class ClientTraffic {
 public:
  explicit ClientTraffic(const std::string& ns) {
    thread_ = std::thread([this, ns] {
      if (!enterNamespace(ns)) return;
      v4_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      v6_ = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      ready_ = true;
      while (!stop_) {
        if (streaming_) {
          send(kInternetAddress);
          send(kInternetAddress6);
        }
        for (int pending = bursts_.exchange(0); pending > 0; --pending) {
          for (const char* to : {kInternetAddress, kInternetAddress6, kGeoAddress, kGeoAddress6, kServiceAddress}) {
            send(to);
          }
        }
        std::this_thread::sleep_for(10ms);
      }
      ::close(v4_);
      ::close(v6_);
    });
    while (!ready_) std::this_thread::sleep_for(1ms);
  }
  ClientTraffic(const ClientTraffic&) = delete;
  ClientTraffic& operator=(const ClientTraffic&) = delete;
  ~ClientTraffic() {
    stop_ = true;
    thread_.join();
  }
  void burst() {
    ++bursts_;
    std::this_thread::sleep_for(50ms);
  }
  void stream(bool on) { streaming_ = on; }

 private:
  void send(const char* to) const {
    if (std::string_view(to).find(':') == std::string_view::npos) {
      sockaddr_in remote{};
      remote.sin_family = AF_INET;
      remote.sin_port = htons(9999);
      ::inet_pton(AF_INET, to, &remote.sin_addr);
      (void)::sendto(v4_, "leak?", 5, 0, reinterpret_cast<sockaddr*>(&remote), sizeof remote);
    } else {
      sockaddr_in6 remote{};
      remote.sin6_family = AF_INET6;
      remote.sin6_port = htons(9999);
      ::inet_pton(AF_INET6, to, &remote.sin6_addr);
      (void)::sendto(v6_, "leak?", 5, 0, reinterpret_cast<sockaddr*>(&remote), sizeof remote);
    }
  }
  std::thread thread_;
  std::atomic<bool> ready_{false};
  std::atomic<bool> stop_{false};
  std::atomic<bool> streaming_{false};
  std::atomic<int> bursts_{0};
  int v4_ = -1;
  int v6_ = -1;
};

bool isLinkControl(const CapturedPacket& p) {
  if (p.family == 0) return true;  // ARP
  if (p.family != AF_INET6) return false;
  auto linkLocal = [](const IpAddress& a) { return a.bytes[0] == 0xfe && (a.bytes[1] & 0xc0) == 0x80; };
  const bool multicast = p.destination.bytes[0] == 0xff;
  // Neighbour discovery and router solicitation: to the link's own prefix or its link-local addresses.
  const bool onLink = p.protocol == IPPROTO_ICMPV6 &&
                      (IpPrefix::parse("fd98::/64")->contains(p.destination) || linkLocal(p.destination));
  return linkLocal(p.source) || multicast || onLink;
}

bool isWireGuard(const CapturedPacket& p) {
  return p.family == AF_INET && p.protocol == IPPROTO_UDP && p.destination.toString() == kRouterAddress &&
         (p.destinationPort == 51820 || p.destinationPort == 51821);
}

// The packets that left in the clear, other than to `direct` destinations.
std::vector<std::string> leaks(const std::vector<CapturedPacket>& packets, const std::set<std::string>& direct = {}) {
  std::vector<std::string> out;
  for (const CapturedPacket& p : packets) {
    if (isLinkControl(p) || isWireGuard(p) || direct.contains(p.destination.toString())) continue;
    out.push_back(p.describe());
  }
  return out;
}

bool leftInTheClear(const std::vector<CapturedPacket>& packets, const std::string& destination) {
  return std::ranges::any_of(packets, [&](const CapturedPacket& p) { return p.destination.toString() == destination; });
}

// What a window between two tunnels let through: how many packets and over how long.
std::string summary(const std::vector<CapturedPacket>& packets) {
  std::vector<const CapturedPacket*> leaked;
  for (const CapturedPacket& p : packets) {
    if (!isLinkControl(p) && !isWireGuard(p)) leaked.push_back(&p);
  }
  if (leaked.empty()) return "nothing in the clear";
  const auto span = std::chrono::duration_cast<std::chrono::milliseconds>(leaked.back()->at - leaked.front()->at);
  return fmt::format("{} packets in the clear over {} ms (first: {})", leaked.size(), span.count(),
                     leaked.front()->describe());
}

class TunnelLeakTest : public TunnelLabTest {
 protected:
  LabOptions options() const override { return {.countryGeoIP = true}; }

  // Looks `name` up the way every program on the user's machine does (the C library, the
  // client's resolv.conf).
  void lookUp(const std::string& name) {
    (void)testing::runProcess({kIp, "netns", "exec", client_, "getent", "ahostsv4", name});
  }

  // Waits for the tunnel's resolvers, `resolver`, in the client's resolv.conf (the last step of a
  // helper's start) or for the machine's own ones (resolver empty); answers when they were seen.
  Clock::time_point resolversAre(const std::string& resolver, const std::string& original) {
    EXPECT_TRUE(waitFor(
        [&] {
          const std::string now = clientResolvConf();
          return resolver.empty() ? now == original : now.find("nameserver " + resolver) != std::string::npos;
        },
        30s))
        << clientResolvConf() << agent_->output();
    return Clock::now();
  }

  // After `ready` (plus the capture's own latency) nothing may leave beside the tunnel.
  static std::vector<CapturedPacket> after(const std::vector<CapturedPacket>& packets, Clock::time_point ready) {
    std::vector<CapturedPacket> out;
    for (const CapturedPacket& p : packets) {
      if (p.at > ready + 50ms) out.push_back(p);
    }
    return out;
  }

  void note(const std::string& moment, const std::string& what) {
    (void)std::fprintf(stderr, "[leak test] %s: %s\n", moment.c_str(), what.c_str());
    RecordProperty(moment, what);
  }

  // The helper's lines of the agent's log, for failure messages.
  std::string tunnelLines() {
    std::string out;
    std::istringstream lines(agent_->output());
    for (std::string line; std::getline(lines, line);) {
      if (line.find("[Tunnel]") != std::string::npos || line.find("[Routing]") != std::string::npos) out += line + "\n";
    }
    return out;
  }

  pid_t helperPid() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const std::string name = entry.path().filename().string();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      std::string cmdline;
      std::ifstream(entry.path() / "cmdline") >> cmdline;
      std::string stat;
      std::getline(std::ifstream(entry.path() / "stat"), stat);
      const auto close = stat.rfind(')');
      if (close == std::string::npos || cmdline.find("norvik-tunnel") == std::string::npos) continue;
      // After the command's name: the state, then the parent's id.
      std::istringstream fields(stat.substr(close + 1));
      std::string state;
      int parent = 0;
      if (fields >> state >> parent && parent == agent_->pid()) return std::stoi(name);
    }
    return -1;
  }
};

TEST_F(TunnelLeakTest, OnlyTheTunnelLeavesInEveryModeThroughEveryChange) {
  LabResolver resolver(server_, {{"tunnelled.example", kServiceAddress}});
  ASSERT_TRUE(resolver.listening());
  PacketCapture capture(client_, "veth0");
  ASSERT_TRUE(capture.capturing());
  ClientTraffic traffic(client_);
  const std::string originalResolvers = clientResolvConf();
  startAgent();
  ASSERT_TRUE(waitFor([&] { return agentLogCount("[GeoIP] cache refreshed: 25000 CIDRs") == 1; }, 30s))
      << agent_->output();
  ASSERT_EQ(norvik({"mode", "full", "--yes"}).exitStatus, 0);

  // Without the tunnel everything leaves directly: the capture sees it (the test can fail).
  capture.take();
  (void)resolver.take();
  traffic.burst();
  lookUp("before.example");
  auto packets = capture.take();
  EXPECT_TRUE(leftInTheClear(packets, kInternetAddress) && leftInTheClear(packets, kInternetAddress6) &&
              leftInTheClear(packets, kRouterAddress))
      << "the capture sees nothing";

  // --- full mode: connect ---
  traffic.stream(true);
  std::string address;
  ASSERT_EQ(norvikWhileAdmitting({"connect"}, "lab-1", wgA_, &address).exitStatus, 0) << agent_->output();
  auto ready = resolversAre(kTunnelResolverA, originalResolvers);
  traffic.stream(false);
  packets = capture.take();
  EXPECT_EQ(leaks(after(packets, ready)), std::vector<std::string>{}) << "full mode, while connecting";
  note("full: connect", "before the helper's routes and resolvers: " + summary(packets));

  auto steady = [&](const std::string& moment, const std::set<std::string>& direct) {
    (void)resolver.take();
    traffic.burst();
    lookUp("steady.example");
    lookUp("www.steady.example");
    auto window = capture.take();
    EXPECT_EQ(leaks(window, direct), std::vector<std::string>{}) << moment;
    return window;
  };
  steady("full mode, connected", {});
  auto questions = resolver.take();
  ASSERT_FALSE(questions.empty()) << "names were looked up";
  EXPECT_TRUE(std::ranges::all_of(questions, [&](const auto& q) { return q.from == address; }))
      << "every name goes to the key's resolver through the tunnel; first asker " << questions.front().from;

  // --- full mode: server change ---
  traffic.stream(true);
  ASSERT_EQ(norvikWhileAdmitting({"change-server"}, "lab-2", wgB_, &address).exitStatus, 0) << agent_->output();
  ready = resolversAre(kTunnelResolverB, originalResolvers);
  traffic.stream(false);
  packets = capture.take();
  EXPECT_EQ(leaks(after(packets, ready)), std::vector<std::string>{}) << "full mode, after the server change";
  note("full: server change", "between the two tunnels: " + summary(packets));
  steady("full mode, new server", {});
  // The tunnel's own packets never enter the tunnel again: a loop would show as megabytes sent.
  const auto transfer = testing::runProcess({kIp, "netns", "exec", client_, "wg", "show", "norvik0", "transfer"});
  if (transfer.exitStatus == 0) {
    std::istringstream fields(transfer.out);
    std::string key;
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
    fields >> key >> received >> sent;
    EXPECT_LT(sent, 1u << 20) << "bytes sent into the tunnel: " << transfer.out;
  }
  questions = resolver.take();
  EXPECT_TRUE(!questions.empty() && std::ranges::all_of(questions, [&](const auto& q) { return q.from == address; }));

  // --- full mode: key refresh (the backend issues a new key; the agent reads it with the next
  // main configuration, here asked for at once with SIGUSR1) ---
  const std::size_t handshakes = agentLogCount("первое рукопожатие");
  ASSERT_EQ(norvik({"debug", "api", "getkey"}).exitStatus, 0);
  (void)admitActivePeer("lab-2", wgB_);
  traffic.stream(true);
  ASSERT_EQ(::kill(agent_->pid(), SIGUSR1), 0);
  EXPECT_TRUE(waitFor([&] { return agentLogCount("первое рукопожатие") > handshakes; }, 30s)) << agent_->output();
  ready = resolversAre(kTunnelResolverB, originalResolvers);
  traffic.stream(false);
  packets = capture.take();
  EXPECT_EQ(leaks(after(packets, ready)), std::vector<std::string>{}) << "full mode, after the key refresh";
  note("full: key refresh", "between the two tunnels: " + summary(packets));
  steady("full mode, new key", {});

  // --- smart mode, with 20 000 + 5 000 ranges going direct ---
  const std::size_t smartStarts = agentLogCount("[Tunnel] режим smart");
  const std::size_t handshakesBeforeSmart = agentLogCount("первое рукопожатие");
  traffic.stream(true);
  ASSERT_EQ(norvik({"mode", "smart"}).exitStatus, 0);
  ASSERT_TRUE(waitFor([&] { return agentLogCount("[Tunnel] режим smart") > smartStarts; }, 30s)) << agent_->output();
  ASSERT_TRUE(waitFor([&] { return agentLogCount("первое рукопожатие") > handshakesBeforeSmart; }, 30s))
      << agent_->output();
  ready = resolversAre(kTunnelResolverB, originalResolvers);
  traffic.stream(false);
  packets = capture.take();
  EXPECT_EQ(leaks(after(packets, ready)), std::vector<std::string>{}) << "after the change to smart mode";
  note("full → smart", "between the two tunnels: " + summary(packets));
  // The bypass routes follow the rules in the background; until then their ranges use the tunnel.
  ASSERT_TRUE(waitFor([&] { return agentLogCount("[Tunnel] 25000 маршрутов в обход") == 1; }, 20s)) << tunnelLines();
  const std::string table = run({kIp, "-n", client_, "route", "show", "table", "28278"}) +
                            run({kIp, "-6", "-n", client_, "route", "show", "table", "28278"});
  EXPECT_EQ(std::ranges::count(table, '\n'), 25002) << "every range applied, and the two default routes";
  const auto smart = steady("smart mode", {kGeoAddress, kGeoAddress6});
  EXPECT_TRUE(leftInTheClear(smart, kGeoAddress)) << "the GeoIP list's IPv4 ranges go direct";
  EXPECT_TRUE(leftInTheClear(smart, kGeoAddress6)) << "the GeoIP list's IPv6 ranges go direct";
  questions = resolver.take();
  EXPECT_TRUE(!questions.empty() && std::ranges::all_of(questions, [&](const auto& q) { return q.from == address; }));

  // --- the helper killed: what happens until the agent has given the network back ---
  const pid_t helper = helperPid();
  ASSERT_GT(helper, 0);
  traffic.stream(true);
  ASSERT_EQ(::kill(helper, SIGKILL), 0);
  const auto killed = Clock::now();
  resolversAre("", originalResolvers);
  const auto restored = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - killed);
  std::this_thread::sleep_for(500ms);
  traffic.stream(false);
  packets = capture.take();
  note("helper killed",
       fmt::format("the machine's resolvers back after {} ms; {}", restored.count(), summary(packets)));
  EXPECT_EQ(run({kIp, "-n", client_, "rule"}).find("28277"), std::string::npos) << "the agent cleaned up after it";

  // --- services mode: only the chosen sites through the tunnel, the system's resolvers stay ---
  // The sites' settings are written half a second after the last change; the tunnel takes them
  // with its next configuration, which the change of mode installs.
  const std::size_t applied = agentLogCount("[Routing] applied:");
  ASSERT_EQ(norvik({"sites", "add", "tunnelled.example"}).exitStatus, 0);
  ASSERT_TRUE(waitFor([&] { return agentLogCount("[Routing] applied:") > applied; }, 10s));
  ASSERT_EQ(norvik({"mode", "services"}).exitStatus, 0);
  ASSERT_EQ(norvik({"connect"}).exitStatus, 0) << agent_->output();
  ASSERT_TRUE(waitFor([&] { return agentLogCount("[Tunnel] режим services") >= 1; }, 30s)) << agent_->output();
  EXPECT_EQ(clientResolvConf(), originalResolvers);
  const auto services =
      steady("services mode", {kInternetAddress, kInternetAddress6, kGeoAddress, kGeoAddress6, kRouterAddress});
  EXPECT_FALSE(leftInTheClear(services, kServiceAddress)) << "the chosen site goes through the tunnel\n"
                                                          << tunnelLines();
  EXPECT_TRUE(leftInTheClear(services, kInternetAddress)) << "everything else goes direct";
  questions = resolver.take();
  EXPECT_TRUE(!questions.empty() && std::ranges::all_of(questions, [](const auto& q) {
    return q.from == std::string(kClientAddress);
  })) << "services mode keeps the system's resolvers";

  // --- the agent killed: its helper gives the network back by itself ---
  ASSERT_EQ(norvik({"mode", "full", "--yes"}).exitStatus, 0);
  resolversAre(kTunnelResolverB, originalResolvers);
  ASSERT_EQ(::kill(agent_->pid(), SIGKILL), 0);
  resolversAre("", originalResolvers);
  EXPECT_TRUE(waitFor([&] { return run({kIp, "-n", client_, "rule"}).find("28277") == std::string::npos; }, 10s));
}

}  // namespace
}  // namespace norvik::tunnel_helper
