// The real tunnel as a user gets it, for the end-to-end and leak tests: two network namespaces
// joined by a veth pair, one the user's machine (the local backend, the agent, the command line)
// and one the VPN provider (two userspace WireGuard servers holding the keys the backend hands out,
// a resolver on the "home router" address and inside each tunnel, and a few services). Root only;
// the fixture skips otherwise.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "testing/background_process.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"
#include "tunnel_helper/ip_prefix.h"

namespace norvik::tunnel_helper::lab {

inline constexpr const char* kIp = "/usr/sbin/ip";
inline constexpr std::uint16_t kServicePort = 8080;
// The user's physical link and its "home router" (which also answers names, as home routers do).
inline constexpr const char* kClientAddress = "198.18.0.2";
inline constexpr const char* kRouterAddress = "198.18.0.1";
inline constexpr const char* kClientAddress6 = "fd98::2";
inline constexpr const char* kRouterAddress6 = "fd98::1";
// On the provider's side: a service only its tunnels lead to; an "internet" address reachable both
// directly and through a tunnel (IPv4 and IPv6); and addresses of the GeoIP list that the smart mode
// reaches directly (every list of the local backend starts with 5.3.0.0/24 and 2a00:1148::/32).
inline constexpr const char* kServiceAddress = "198.19.5.5";
inline constexpr const char* kInternetAddress = "198.19.7.7";
inline constexpr const char* kInternetAddress6 = "fd99::7";
inline constexpr const char* kGeoAddress = "5.3.0.7";
inline constexpr const char* kGeoAddress6 = "2a00:1148::7";
// The key's resolver in each server's tunnel.
inline constexpr const char* kTunnelResolverA = "10.200.1.1";
inline constexpr const char* kTunnelResolverB = "10.200.2.1";

std::string run(const std::vector<std::string>& argv);

// Moves the calling thread into the named network namespace.
bool enterNamespace(const std::string& name);

// Runs `work` on a thread inside the named network namespace: the sockets it makes belong there.
template <class Work>
auto inNamespace(const std::string& name, Work work) {
  std::invoke_result_t<Work> result{};
  std::thread([&] {
    if (enterNamespace(name)) result = work();
  }).join();
  return result;
}

// A stand-in resolver on the provider's side, on port 53 of every address there: it answers A
// questions for the names it is given, NXDOMAIN for the rest, and records who asked what.
class LabResolver {
 public:
  struct Question {
    std::string from;
    std::string name;
  };
  LabResolver(const std::string& ns, std::map<std::string, std::string> answers);
  LabResolver(const LabResolver&) = delete;
  LabResolver& operator=(const LabResolver&) = delete;
  ~LabResolver();
  [[nodiscard]] bool listening() const { return fd_ >= 0; }
  std::vector<Question> take();

 private:
  void serve();
  int fd_ = -1;
  std::map<std::string, std::string> answers_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<Question> questions_;
  std::thread thread_;
};

// Every frame that leaves an interface, captured with an AF_PACKET socket in its namespace.
struct CapturedPacket {
  std::chrono::steady_clock::time_point at;
  int family = 0;  // AF_INET, AF_INET6; 0 for anything else (ARP)
  IpAddress source;
  IpAddress destination;
  int protocol = 0;  // IPPROTO_UDP, IPPROTO_TCP, IPPROTO_ICMPV6, …
  std::uint16_t sourcePort = 0;
  std::uint16_t destinationPort = 0;
  [[nodiscard]] std::string describe() const;
};

class PacketCapture {
 public:
  PacketCapture(const std::string& ns, const std::string& interface);
  PacketCapture(const PacketCapture&) = delete;
  PacketCapture& operator=(const PacketCapture&) = delete;
  ~PacketCapture();
  [[nodiscard]] bool capturing() const { return fd_ >= 0; }
  // Everything captured since the last call.
  std::vector<CapturedPacket> take();

 private:
  void loop();
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<CapturedPacket> packets_;
  std::thread thread_;
};

struct LabOptions {
  bool countryGeoIP = false;  // the local backend serves a country-sized GeoIP list
};

class TunnelLabTest : public ::testing::Test {
 protected:
  virtual LabOptions options() const { return {}; }
  void SetUp() override;
  void TearDown() override;

  nlohmann::json state();
  void startServer(const std::string& name, const std::string& interface, int port, const std::string& address);
  // Lets the server know the client key the backend issued on it last (what a provider's key
  // distribution does); answers its address.
  std::string admitActivePeer(const std::string& name, const std::string& interface,
                              const std::string& notPublicKey = {});
  std::vector<std::string> norvikArgv(std::vector<std::string> args) const;
  testing::ProcessResult norvik(std::vector<std::string> args);
  // A command that needs the server to take a new key while it runs (connect, change-server).
  testing::ProcessResult norvikWhileAdmitting(std::vector<std::string> args, const std::string& server,
                                              const std::string& interface, std::string* clientAddress);
  // Starts the agent and waits until it serves its socket (a socket left by a killed agent does not
  // count). Each start writes its own log.
  void startAgent(const std::string& logName = "agent.log");
  std::string routingState();
  // The client's /etc/resolv.conf (what `ip netns exec` mounts over it).
  std::string clientResolvConf();
  // Times `text` appears in the agent's output.
  std::size_t agentLogCount(const std::string& text);

  testing::TempDir dir_;
  std::string client_, server_, wgA_, wgB_, base_;
  bool namespacesMade_ = false;
  std::string hostResolvConf_;
  std::unique_ptr<testing::BackgroundProcess> backend_, serverA_, serverB_, agent_;
  std::vector<int> listeners_;
};

// A TCP listener in the current namespace (call through inNamespace), optionally bound to a device.
int listenOn(const char* address, const std::string& device);
// Connects from the client's namespace and answers the address the provider's side saw the
// connection come from ("" when it never arrived).
std::string arrivesFrom(const std::string& clientNamespace, const char* address, int listener);

}  // namespace norvik::tunnel_helper::lab
