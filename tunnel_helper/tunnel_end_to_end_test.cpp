// The real tunnel as a user gets it: two network namespaces joined by a veth pair, one the user's
// machine (the local backend, the agent, the command line) and one the VPN provider (two userspace
// WireGuard servers holding the keys the backend hands out). Runs as root only; skips otherwise.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/crypto.h"
#include "platform/files.h"
#include "testing/background_process.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"
#include "tunnel_helper/uapi.h"
#include "tunnel_helper/wireguard_go_device.h"

namespace norvik::tunnel_helper {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::BackgroundProcess;
using testing::waitFor;

constexpr const char* kIp = "/usr/sbin/ip";
constexpr std::uint16_t kServicePort = 8080;
// On the provider's side: a service only its tunnels lead to, and an address of the GeoIP list
// (the local backend's list always starts with 5.3.0.0/24) that the smart mode reaches directly.
constexpr const char* kServiceAddress = "198.19.5.5";
constexpr const char* kGeoAddress = "5.3.0.7";

std::string run(std::vector<std::string> argv) {
  auto result = testing::runProcess(argv);
  EXPECT_EQ(result.exitStatus, 0) << fmt::format("{}: {}{}", fmt::join(argv, " "), result.out, result.err);
  return result.out;
}

// Runs `work` on a thread inside the named network namespace: the sockets it makes belong there.
template <class Work>
auto inNamespace(const std::string& name, Work work) {
  std::invoke_result_t<Work> result{};
  std::thread([&] {
    const int fd = ::open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0 && ::setns(fd, CLONE_NEWNET) == 0) result = work();
    if (fd >= 0) ::close(fd);
  }).join();
  return result;
}

int listenOn(const char* address, const std::string& device) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (!device.empty())
    ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(), static_cast<socklen_t>(device.size()));
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(kServicePort);
  ::inet_pton(AF_INET, address, &local.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 || ::listen(fd, 4) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Connects from the user's namespace and answers the address the provider's side saw the
// connection come from ("" when it never arrived).
std::string arrivesFrom(const std::string& clientNamespace, const char* address, int listener) {
  const int client =
      inNamespace(clientNamespace, [] { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); });
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(kServicePort);
  ::inet_pton(AF_INET, address, &remote.sin_addr);
  // Non-blocking: the connect is under way (EINPROGRESS) and the listener below tells whether it arrived.
  (void)::connect(client, reinterpret_cast<sockaddr*>(&remote), sizeof remote);
  pollfd wait{listener, POLLIN, 0};
  std::string from;
  if (::poll(&wait, 1, 3000) == 1) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    const int accepted = ::accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
    if (accepted >= 0) {
      char text[INET_ADDRSTRLEN] = {};
      ::inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
      from = text;
      ::close(accepted);
    }
  }
  ::close(client);
  return from;
}

class TunnelEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: network namespaces and interfaces";
    if (::access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/net/tun";
    if (!findProgram("wireguard-go")) GTEST_SKIP() << "no wireguard-go (Debian package wireguard-go)";
    if (::access(kIp, X_OK) != 0) GTEST_SKIP() << "no ip(8)";
    const int pid = ::getpid() % 100000;
    client_ = fmt::format("nvtc{}", pid);
    server_ = fmt::format("nvts{}", pid);
    wgA_ = fmt::format("nvta{}", pid);
    wgB_ = fmt::format("nvtb{}", pid);
    run({kIp, "netns", "add", client_});
    run({kIp, "netns", "add", server_});
    namespacesMade_ = true;
    run({kIp, "-n", client_, "link", "add", "veth0", "type", "veth", "peer", "name", "veth1", "netns", server_});
    run({kIp, "-n", client_, "link", "set", "lo", "up"});
    run({kIp, "-n", server_, "link", "set", "lo", "up"});
    run({kIp, "-n", client_, "addr", "add", "198.18.0.2/24", "dev", "veth0"});
    run({kIp, "-n", server_, "addr", "add", "198.18.0.1/24", "dev", "veth1"});
    run({kIp, "-n", client_, "link", "set", "veth0", "up"});
    run({kIp, "-n", server_, "link", "set", "veth1", "up"});
    // The user's "physical network": everything goes to the provider's side by default.
    run({kIp, "-n", client_, "route", "add", "default", "via", "198.18.0.1"});
    // The link-local address comes after duplicate address detection; the routing state compared
    // before and after the tunnel must not change under the test's feet.
    ASSERT_TRUE(waitFor(
        [&] {
          return run({kIp, "-6", "-n", client_, "route", "show", "table", "local"}).find("local fe80") !=
                 std::string::npos;
        },
        10s));
    run({kIp, "-n", server_, "addr", "add", std::string(kServiceAddress) + "/32", "dev", "lo"});
    run({kIp, "-n", server_, "addr", "add", std::string(kGeoAddress) + "/32", "dev", "lo"});

    const std::string servers = R"({"servers": [
      {"name": "lab-1", "location": "Стенд", "endpoint": "198.18.0.1:51820", "allowed_ips": "0.0.0.0/0, ::/0",
       "address_pool": "10.200.1.0/24"},
      {"name": "lab-2", "location": "Стенд", "endpoint": "198.18.0.1:51821", "allowed_ips": "0.0.0.0/0, ::/0",
       "address_pool": "10.200.2.0/24"}]})";
    ASSERT_TRUE(writeFileAtomically(dir_ / "servers.json", servers));
    backend_ = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{kIp, "netns", "exec", client_, NORVIK_DEVBACKEND_PATH, "--state-dir",
                                 (dir_ / "backend").string(), "--port", "0", "--port-file", (dir_ / "port").string(),
                                 "--write-ca", (dir_ / "ca.pem").string(), "--write-provisioning",
                                 (dir_ / "provisioning.json").string(), "--servers", (dir_ / "servers.json").string()},
        dir_ / "backend.log");
    ASSERT_TRUE(waitFor([&] { return !readFile(dir_ / "port").value_or("").empty(); })) << backend_->output();
    std::string port = *readFile(dir_ / "port");
    while (!port.empty() && (port.back() == '\n' || port.back() == '\r')) port.pop_back();
    base_ = "https://127.0.0.1:" + port;

    // The provider's two servers, with the keys the backend made for them.
    ASSERT_TRUE(waitFor([&] { return state().contains("server_keys") && state()["server_keys"].size() == 2; }))
        << backend_->output();
    startServer("lab-1", wgA_, 51820, "10.200.1.1/24");
    startServer("lab-2", wgB_, 51821, "10.200.2.1/24");
  }

  void TearDown() override {
    agent_.reset();
    serverA_.reset();
    serverB_.reset();
    backend_.reset();
    for (int fd : listeners_) ::close(fd);
    if (namespacesMade_) {
      (void)testing::runProcess({kIp, "netns", "del", client_});
      (void)testing::runProcess({kIp, "netns", "del", server_});
    }
  }

  Json state() { return Json::parse(readFile(dir_ / "backend" / "state.json").value_or("{}"), nullptr, false); }

  static std::string hexOf(const std::string& base64) {
    auto bytes = base64Decode(base64);
    return bytes ? hexLower(ByteView(bytes->data(), bytes->size())) : std::string();
  }

  void startServer(const std::string& name, const std::string& interface, int port, const std::string& address) {
    auto& process = name == "lab-1" ? serverA_ : serverB_;
    process = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{kIp, "netns", "exec", server_, *findProgram("wireguard-go"), "-f", interface},
        dir_ / (interface + ".log"));
    const auto socket = std::filesystem::path("/var/run/wireguard") / (interface + ".sock");
    ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(socket); })) << process->output();
    const std::string privateKey = state()["server_keys"][name].value("private_key", "");
    auto answer =
        uapiExchange(socket, fmt::format("set=1\nprivate_key={}\nlisten_port={}\n\n", hexOf(privateKey), port), 2s);
    ASSERT_TRUE(answer && parseUapiSetResponse(*answer)) << name;
    run({kIp, "-n", server_, "addr", "add", address, "dev", interface});
    run({kIp, "-n", server_, "link", "set", interface, "up"});
  }

  // Lets the server know the client key the backend issued on it last (what a provider's key
  // distribution does); answers its address.
  std::string admitActivePeer(const std::string& name, const std::string& interface) {
    std::string address;
    EXPECT_TRUE(waitFor(
        [&] {
          for (const Json& peer : state().value("peers", Json::object()).value(name, Json::array())) {
            if (!peer.value("active", false)) continue;
            auto answer = uapiExchange(
                std::filesystem::path("/var/run/wireguard") / (interface + ".sock"),
                fmt::format("set=1\npublic_key={}\npreshared_key={}\nreplace_allowed_ips=true\nallowed_ip={}\n\n",
                            hexOf(peer["public_key"]), hexOf(peer["preshared_key"]),
                            peer["allowed_ips"].get<std::string>()),
                2s);
            if (!answer || !parseUapiSetResponse(*answer)) return false;
            address = peer["allowed_ips"].get<std::string>();
            address = address.substr(0, address.find('/'));
            return true;
          }
          return false;
        },
        15s))
        << backend_->output();
    return address;
  }

  std::vector<std::string> norvikArgv(std::vector<std::string> args) const {
    std::vector<std::string> argv = {kIp,
                                     "netns",
                                     "exec",
                                     client_,
                                     NORVIK_CLI_PATH,
                                     "--home",
                                     (dir_ / "home").string(),
                                     "--backend",
                                     base_ + "/api/",
                                     "--ca-file",
                                     (dir_ / "ca.pem").string(),
                                     "--provisioning",
                                     (dir_ / "provisioning.json").string(),
                                     "--tunnel",
                                     "wireguard"};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }

  // A command that needs the server to take its new key while it runs (connect, change-server).
  testing::ProcessResult norvikWhileAdmitting(std::vector<std::string> args, const std::string& server,
                                              const std::string& interface, std::string* clientAddress) {
    BackgroundProcess command(norvikArgv(std::move(args)), dir_ / "command.log");
    *clientAddress = admitActivePeer(server, interface);
    EXPECT_TRUE(waitFor([&] { return !command.running(); }, 40s));
    const int status = command.stop();
    return testing::ProcessResult{status, command.output(), ""};
  }

  std::string routingState() {
    std::string out;
    for (const char* family : {"-4", "-6"}) {
      out += run({kIp, family, "-n", client_, "rule"});
      out += run({kIp, family, "-n", client_, "route", "show", "table", "all"});
    }
    return out;
  }

  testing::TempDir dir_;
  std::string client_, server_, wgA_, wgB_, base_;
  bool namespacesMade_ = false;
  std::unique_ptr<BackgroundProcess> backend_, serverA_, serverB_, agent_;
  std::vector<int> listeners_;
};

TEST_F(TunnelEndToEndTest, ConnectCarriesTrafficSmartModeBypassesChangeServerMovesAndDisconnectRestores) {
  const std::string before = routingState();
  // Only what comes out of one of the tunnels reaches the service; the GeoIP address takes anything.
  const int serviceA = inNamespace(server_, [&] { return listenOn(kServiceAddress, wgA_); });
  const int serviceB = inNamespace(server_, [&] { return listenOn(kServiceAddress, wgB_); });
  const int geo = inNamespace(server_, [&] { return listenOn(kGeoAddress, ""); });
  listeners_ = {serviceA, serviceB, geo};
  ASSERT_TRUE(serviceA >= 0 && serviceB >= 0 && geo >= 0);
  EXPECT_EQ(arrivesFrom(client_, kServiceAddress, serviceA), "") << "not reachable without the tunnel";

  agent_ = std::make_unique<BackgroundProcess>(norvikArgv({"agent"}), dir_ / "agent.log");
  ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(dir_ / "home" / "run" / "agent.sock"); }))
      << agent_->output();
  auto status = testing::runProcess(norvikArgv({"status", "--json"}));
  EXPECT_EQ(Json::parse(status.out, nullptr, false).value("tunnelService", ""), "wireguard") << status.out;

  // As a user would, connect once the agent has the GeoIP list (its first download at start).
  ASSERT_TRUE(waitFor([&] { return agent_->output().find("[GeoIP] cache refreshed") != std::string::npos; }, 20s))
      << agent_->output();
  const auto started = std::chrono::steady_clock::now();
  std::string address;
  auto connected = norvikWhileAdmitting({"connect"}, "lab-1", wgA_, &address);
  ASSERT_EQ(connected.exitStatus, 0) << connected.out << agent_->output();
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
  (void)std::fprintf(stderr, "connect → connected (a handshake after the server learnt the key): %lld ms\n",
                     static_cast<long long>(took.count()));
  EXPECT_NE(connected.out.find("Norvik — Защищено"), std::string::npos) << connected.out;
  EXPECT_EQ(address, "10.200.1.2");

  EXPECT_EQ(arrivesFrom(client_, kServiceAddress, serviceA), address) << agent_->output();
  EXPECT_NE(agent_->output().find("[Tunnel] режим smart: 2 маршрутов в туннель, 3000 в обход"), std::string::npos);
  EXPECT_EQ(arrivesFrom(client_, kGeoAddress, geo), "198.18.0.2") << "smart mode: the GeoIP range goes direct\n"
                                                                  << agent_->output();

  auto changed = norvikWhileAdmitting({"change-server"}, "lab-2", wgB_, &address);
  ASSERT_EQ(changed.exitStatus, 0) << changed.out << agent_->output();
  EXPECT_EQ(address, "10.200.2.2");
  EXPECT_TRUE(waitFor([&] { return arrivesFrom(client_, kServiceAddress, serviceB) == address; }, 10s))
      << agent_->output();

  auto disconnected = testing::runProcess(norvikArgv({"disconnect"}));
  ASSERT_EQ(disconnected.exitStatus, 0) << disconnected.out << disconnected.err;
  const std::string links = run({kIp, "-n", client_, "-br", "link"});
  EXPECT_EQ(links.find("norvik"), std::string::npos) << links;
  EXPECT_EQ(routingState(), before);
  EXPECT_EQ(arrivesFrom(client_, kServiceAddress, serviceB), "");
  EXPECT_EQ(agent_->stop(), 0);
}

}  // namespace
}  // namespace norvik::tunnel_helper
