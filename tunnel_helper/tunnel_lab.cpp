#include "tunnel_helper/tunnel_lab.h"

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/crypto.h"
#include "platform/files.h"
#include "tunnel_helper/uapi.h"
#include "tunnel_helper/wireguard_go_device.h"

namespace norvik::tunnel_helper::lab {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::BackgroundProcess;
using testing::waitFor;

std::string run(const std::vector<std::string>& argv) {
  auto result = testing::runProcess(argv);
  EXPECT_EQ(result.exitStatus, 0) << fmt::format("{}: {}{}", fmt::join(argv, " "), result.out, result.err);
  return result.out;
}

bool enterNamespace(const std::string& name) {
  const int fd = ::open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool entered = ::setns(fd, CLONE_NEWNET) == 0;
  ::close(fd);
  return entered;
}

// --- the resolver ---

LabResolver::LabResolver(const std::string& ns, std::map<std::string, std::string> answers)
    : answers_(std::move(answers)) {
  fd_ = inNamespace(ns, [] {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(53);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      if (fd >= 0) ::close(fd);
      return -1;
    }
    return fd;
  });
  if (fd_ >= 0) thread_ = std::thread([this] { serve(); });
}

LabResolver::~LabResolver() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (fd_ >= 0) ::close(fd_);
}

std::vector<LabResolver::Question> LabResolver::take() {
  std::lock_guard lock(mutex_);
  return std::exchange(questions_, {});
}

void LabResolver::serve() {
  std::uint8_t query[1500];
  while (!stop_) {
    pollfd wait{fd_, POLLIN, 0};
    if (::poll(&wait, 1, 50) != 1) continue;
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    const ssize_t n = ::recvfrom(fd_, query, sizeof query, 0, reinterpret_cast<sockaddr*>(&peer), &length);
    if (n < 12) continue;
    // The question: labels up to the root, then type and class.
    std::size_t offset = 12;
    std::string name;
    while (offset < static_cast<std::size_t>(n) && query[offset] != 0 && query[offset] < 64) {
      const std::size_t label = query[offset];
      if (offset + 1 + label > static_cast<std::size_t>(n)) break;
      if (!name.empty()) name += '.';
      name.append(reinterpret_cast<const char*>(query) + offset + 1, label);
      offset += 1 + label;
    }
    offset += 1;
    if (offset + 4 > static_cast<std::size_t>(n)) continue;
    const int type = query[offset] << 8 | query[offset + 1];
    const std::size_t questionEnd = offset + 4;
    char from[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &peer.sin_addr, from, sizeof from);
    {
      std::lock_guard lock(mutex_);
      questions_.push_back({from, name});
    }
    std::vector<std::uint8_t> answer(query, query + questionEnd);
    const auto known = answers_.find(name);
    const bool answered = known != answers_.end() && type == 1;
    answer[2] = 0x81;                                   // a response, recursion desired
    answer[3] = known == answers_.end() ? 0x83 : 0x80;  // recursion available; NXDOMAIN for unknown names
    answer[6] = 0;
    answer[7] = answered ? 1 : 0;
    answer[8] = answer[9] = answer[10] = answer[11] = 0;
    if (answered) {
      in_addr address{};
      ::inet_pton(AF_INET, known->second.c_str(), &address);
      const std::uint8_t record[] = {0xC0, 0x0C, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4};
      answer.insert(answer.end(), std::begin(record), std::end(record));
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(&address);
      answer.insert(answer.end(), bytes, bytes + 4);
    }
    (void)::sendto(fd_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&peer), length);
  }
}

// --- the capture ---

std::string CapturedPacket::describe() const {
  const char* proto = protocol == IPPROTO_UDP ? "udp" : protocol == IPPROTO_TCP ? "tcp" : "ip";
  if (protocol == IPPROTO_ICMPV6) proto = "icmpv6";
  if (protocol == IPPROTO_ICMP) proto = "icmp";
  return fmt::format("{} {}:{} → {}:{}", proto, source.toString(), sourcePort, destination.toString(), destinationPort);
}

PacketCapture::PacketCapture(const std::string& ns, const std::string& interface) {
  std::atomic<int> ready{0};
  thread_ = std::thread([this, ns, interface, &ready] {
    if (!enterNamespace(ns)) {
      ready = -1;
      return;
    }
    const int fd = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
    sockaddr_ll local{};
    local.sll_family = AF_PACKET;
    local.sll_protocol = htons(ETH_P_ALL);
    local.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
    if (fd < 0 || local.sll_ifindex == 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      if (fd >= 0) ::close(fd);
      ready = -1;
      return;
    }
    fd_ = fd;
    ready = 1;
    loop();
  });
  while (ready == 0) std::this_thread::sleep_for(1ms);
}

PacketCapture::~PacketCapture() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (fd_ >= 0) ::close(fd_);
}

std::vector<CapturedPacket> PacketCapture::take() {
  // What is on its way through the socket's queue belongs to the window that just ended.
  std::this_thread::sleep_for(60ms);
  std::lock_guard lock(mutex_);
  return std::exchange(packets_, {});
}

void PacketCapture::loop() {
  std::uint8_t frame[65536];
  while (!stop_) {
    pollfd wait{fd_, POLLIN, 0};
    if (::poll(&wait, 1, 20) != 1) continue;
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    const ssize_t n = ::recvfrom(fd_, frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 14 || from.sll_pkttype != PACKET_OUTGOING) continue;
    CapturedPacket packet;
    packet.at = std::chrono::steady_clock::now();
    const int etherType = frame[12] << 8 | frame[13];
    const std::uint8_t* ip = frame + 14;
    const auto size = static_cast<std::size_t>(n) - 14;
    std::size_t transport = 0;
    if (etherType == ETH_P_IP && size >= 20) {
      packet.family = AF_INET;
      packet.protocol = ip[9];
      std::memcpy(packet.source.bytes.data(), ip + 12, 4);
      std::memcpy(packet.destination.bytes.data(), ip + 16, 4);
      transport = static_cast<std::size_t>(ip[0] & 0x0F) * 4;
    } else if (etherType == ETH_P_IPV6 && size >= 40) {
      packet.family = AF_INET6;
      packet.source.family = packet.destination.family = AF_INET6;
      packet.protocol = ip[6];
      std::memcpy(packet.source.bytes.data(), ip + 8, 16);
      std::memcpy(packet.destination.bytes.data(), ip + 24, 16);
      transport = 40;
    }
    if ((packet.protocol == IPPROTO_UDP || packet.protocol == IPPROTO_TCP) && transport + 4 <= size) {
      packet.sourcePort = static_cast<std::uint16_t>(ip[transport] << 8 | ip[transport + 1]);
      packet.destinationPort = static_cast<std::uint16_t>(ip[transport + 2] << 8 | ip[transport + 3]);
    }
    std::lock_guard lock(mutex_);
    packets_.push_back(packet);
  }
}

// --- sockets ---

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

// --- the fixture ---

void TunnelLabTest::SetUp() {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: network namespaces and interfaces";
  if (::access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/net/tun";
  if (!findProgram("wireguard-go")) GTEST_SKIP() << "no wireguard-go (Debian package wireguard-go)";
  if (::access(kIp, X_OK) != 0) GTEST_SKIP() << "no ip(8)";
  hostResolvConf_ = readFile("/etc/resolv.conf").value_or("<none>");
  const int pid = ::getpid() % 100000;
  client_ = fmt::format("nvtc{}", pid);
  server_ = fmt::format("nvts{}", pid);
  wgA_ = fmt::format("nvta{}", pid);
  wgB_ = fmt::format("nvtb{}", pid);
  // `ip netns exec` mounts this file over /etc/resolv.conf for everything started in the client's
  // namespace: the tunnel changes the client's resolvers, never this machine's.
  ASSERT_TRUE(makeDirectories("/etc/netns/" + client_));
  ASSERT_TRUE(writeFileAtomically("/etc/netns/" + client_ + "/resolv.conf",
                                  fmt::format("nameserver {}\noptions timeout:1 attempts:1\n", kRouterAddress)));
  run({kIp, "netns", "add", client_});
  run({kIp, "netns", "add", server_});
  namespacesMade_ = true;
  run({kIp, "-n", client_, "link", "add", "veth0", "type", "veth", "peer", "name", "veth1", "netns", server_});
  run({kIp, "-n", client_, "link", "set", "lo", "up"});
  run({kIp, "-n", server_, "link", "set", "lo", "up"});
  run({kIp, "-n", client_, "addr", "add", std::string(kClientAddress) + "/24", "dev", "veth0"});
  run({kIp, "-n", server_, "addr", "add", std::string(kRouterAddress) + "/24", "dev", "veth1"});
  run({kIp, "-n", client_, "addr", "add", std::string(kClientAddress6) + "/64", "dev", "veth0", "nodad"});
  run({kIp, "-n", server_, "addr", "add", std::string(kRouterAddress6) + "/64", "dev", "veth1", "nodad"});
  run({kIp, "-n", client_, "link", "set", "veth0", "up"});
  run({kIp, "-n", server_, "link", "set", "veth1", "up"});
  // The user's "physical network": everything goes to the provider's side by default, IPv6 too.
  run({kIp, "-n", client_, "route", "add", "default", "via", kRouterAddress});
  run({kIp, "-6", "-n", client_, "route", "add", "default", "via", kRouterAddress6});
  // The link-local address comes after duplicate address detection; the routing state compared
  // before and after the tunnel must not change under the test's feet.
  ASSERT_TRUE(waitFor(
      [&] {
        return run({kIp, "-6", "-n", client_, "route", "show", "table", "local"}).find("local fe80") !=
               std::string::npos;
      },
      10s));
  for (const char* address : {kServiceAddress, kInternetAddress, kGeoAddress}) {
    run({kIp, "-n", server_, "addr", "add", std::string(address) + "/32", "dev", "lo"});
  }
  for (const char* address : {kInternetAddress6, kGeoAddress6}) {
    run({kIp, "-n", server_, "addr", "add", std::string(address) + "/128", "dev", "lo"});
  }
  ASSERT_EQ(testing::runProcess({kIp, "netns", "exec", client_, "cat", "/etc/resolv.conf"}).out,
            readFile("/etc/netns/" + client_ + "/resolv.conf").value_or(""))
      << "the client must have a resolv.conf of its own";

  const std::string servers = fmt::format(R"({{"servers": [
      {{"name": "lab-1", "location": "Стенд", "endpoint": "198.18.0.1:51820", "allowed_ips": "0.0.0.0/0, ::/0",
       "address_pool": "10.200.1.0/24", "dns": "{}"}},
      {{"name": "lab-2", "location": "Стенд", "endpoint": "198.18.0.1:51821", "allowed_ips": "0.0.0.0/0, ::/0",
       "address_pool": "10.200.2.0/24", "dns": "{}"}}]}})",
                                          kTunnelResolverA, kTunnelResolverB);
  ASSERT_TRUE(writeFileAtomically(dir_ / "servers.json", servers));
  std::vector<std::string> backendArgv{kIp,
                                       "netns",
                                       "exec",
                                       client_,
                                       NORVIK_DEVBACKEND_PATH,
                                       "--state-dir",
                                       (dir_ / "backend").string(),
                                       "--port",
                                       "0",
                                       "--port-file",
                                       (dir_ / "port").string(),
                                       "--write-ca",
                                       (dir_ / "ca.pem").string(),
                                       "--write-provisioning",
                                       (dir_ / "provisioning.json").string(),
                                       "--servers",
                                       (dir_ / "servers.json").string()};
  if (options().countryGeoIP) backendArgv.emplace_back("--geoip-country");
  backend_ = std::make_unique<BackgroundProcess>(backendArgv, dir_ / "backend.log");
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

void TunnelLabTest::TearDown() {
  agent_.reset();
  serverA_.reset();
  serverB_.reset();
  backend_.reset();
  for (int fd : listeners_) ::close(fd);
  if (namespacesMade_) {
    (void)testing::runProcess({kIp, "netns", "del", client_});
    (void)testing::runProcess({kIp, "netns", "del", server_});
  }
  if (!client_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all("/etc/netns/" + client_, ignored);
    EXPECT_EQ(readFile("/etc/resolv.conf").value_or("<none>"), hostResolvConf_) << "the machine's own resolvers";
  }
}

Json TunnelLabTest::state() {
  return Json::parse(readFile(dir_ / "backend" / "state.json").value_or("{}"), nullptr, false);
}

namespace {
std::string hexOf(const std::string& base64) {
  auto bytes = base64Decode(base64);
  return bytes ? hexLower(ByteView(bytes->data(), bytes->size())) : std::string();
}
}  // namespace

void TunnelLabTest::startServer(const std::string& name, const std::string& interface, int port,
                                const std::string& address) {
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

std::string TunnelLabTest::admitActivePeer(const std::string& name, const std::string& interface,
                                           const std::string& notPublicKey) {
  std::string address;
  EXPECT_TRUE(waitFor(
      [&] {
        for (const Json& peer : state().value("peers", Json::object()).value(name, Json::array())) {
          if (!peer.value("active", false) || peer.value("public_key", "") == notPublicKey) continue;
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

std::vector<std::string> TunnelLabTest::norvikArgv(std::vector<std::string> args) const {
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

testing::ProcessResult TunnelLabTest::norvik(std::vector<std::string> args) {
  return testing::runProcess(norvikArgv(std::move(args)));
}

testing::ProcessResult TunnelLabTest::norvikWhileAdmitting(std::vector<std::string> args, const std::string& server,
                                                           const std::string& interface, std::string* clientAddress) {
  BackgroundProcess command(norvikArgv(std::move(args)), dir_ / "command.log");
  *clientAddress = admitActivePeer(server, interface);
  EXPECT_TRUE(waitFor([&] { return !command.running(); }, 40s));
  const int status = command.stop();
  return testing::ProcessResult{status, command.output(), ""};
}

void TunnelLabTest::startAgent(const std::string& logName) {
  // The saved resolv.conf of the tunnel stays in the test's directory.
  agent_ = std::make_unique<BackgroundProcess>(
      norvikArgv({"agent"}), dir_ / logName,
      std::map<std::string, std::string>{{"NORVIK_TUNNEL_STATE_DIR", (dir_ / "tunnel-state").string()}});
  ASSERT_TRUE(waitFor([&] { return agent_->output().find("[Agent] запущен, управление") != std::string::npos; }))
      << agent_->output();
}

std::string TunnelLabTest::routingState() {
  std::string out;
  for (const char* family : {"-4", "-6"}) {
    out += run({kIp, family, "-n", client_, "rule"});
    out += run({kIp, family, "-n", client_, "route", "show", "table", "all"});
  }
  return out;
}

std::string TunnelLabTest::clientResolvConf() {
  return readFile("/etc/netns/" + client_ + "/resolv.conf").value_or("<none>");
}

std::size_t TunnelLabTest::agentLogCount(const std::string& text) {
  const std::string output = agent_ ? agent_->output() : std::string();
  std::size_t count = 0;
  for (auto at = output.find(text); at != std::string::npos; at = output.find(text, at + text.size())) ++count;
  return count;
}

}  // namespace norvik::tunnel_helper::lab
