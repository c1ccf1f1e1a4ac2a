#include "platform/linux/glibc_dns_resolver.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

// A one-name DNS responder on 127.0.0.1: "probe.example" has two A records, every other name is
// NXDOMAIN. It copies the question and appends the answers, which is all a test needs.
class LoopbackDnsResponder {
 public:
  LoopbackDnsResponder() {
    socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) ADD_FAILURE() << "bind";
    socklen_t length = sizeof address;
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~LoopbackDnsResponder() {
    stop_ = true;
    thread_.join();
    ::close(socket_);
  }
  [[nodiscard]] std::string server() const { return "127.0.0.1:" + std::to_string(port_); }
  [[nodiscard]] int queries() const { return queries_; }

 private:
  void serve() {
    while (!stop_) {
      pollfd watch{socket_, POLLIN, 0};
      if (::poll(&watch, 1, 20) <= 0) continue;
      unsigned char packet[512];
      sockaddr_in from{};
      socklen_t fromLength = sizeof from;
      const ssize_t n = ::recvfrom(socket_, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
      if (n < 12) continue;
      ++queries_;
      std::string reply(reinterpret_cast<char*>(packet), static_cast<std::size_t>(n));
      const bool known = reply.find(
                             "\x05probe\x07"
                             "example") != std::string::npos;
      reply[2] = static_cast<char>(0x81);                 // a response, recursion desired
      reply[3] = static_cast<char>(known ? 0x80 : 0x83);  // recursion available; NXDOMAIN when unknown
      reply[7] = known ? 2 : 0;                           // answer count
      if (known) {
        for (unsigned char last : {10, 11}) {
          const unsigned char record[] = {0xC0, 0x0C, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 192, 0, 2, last};
          reply.append(reinterpret_cast<const char*>(record), sizeof record);
        }
      }
      ::sendto(socket_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), fromLength);
    }
  }

  int socket_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> queries_{0};
  std::thread thread_;
};

class GlibcDnsResolverTest : public ::testing::Test {
 protected:
  DnsResult resolve(DnsQuery query) {
    std::optional<DnsResult> result;
    resolver_.resolve(std::move(query), [&](DnsResult r) { result = std::move(r); });
    loop_.runUntilIdle();
    EXPECT_TRUE(result.has_value());
    return std::move(*result);
  }

  testing::VirtualEventLoop loop_;
  GlibcDnsResolver resolver_{loop_};
  LoopbackDnsResponder responder_;
};

TEST_F(GlibcDnsResolverTest, AsksTheGivenServerAndReturnsEveryAddress) {
  auto result = resolve({"probe.example", {responder_.server()}, 2s});
  ASSERT_TRUE(result.has_value()) << result.error().description();
  EXPECT_EQ(*result, (std::vector<std::string>{"192.0.2.10", "192.0.2.11"}));
  EXPECT_GE(responder_.queries(), 1);
}

TEST_F(GlibcDnsResolverTest, AnUnknownNameHasNoAddress) {
  auto result = resolve({"missing.example", {responder_.server()}, 2s});
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().code, static_cast<int>(DnsResolver::ErrorCode::noAddress));
}

TEST_F(GlibcDnsResolverTest, ASilentServerIsPassedOverForTheNextOne) {
  // A bound socket that never answers stands for a resolver that is unreachable.
  LoopbackDnsResponder answering;
  int silent = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string silentServer = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));

  auto result = resolve({"probe.example", {silentServer, answering.server()}, 2s});
  ::close(silent);
  ASSERT_TRUE(result.has_value()) << result.error().description();
  EXPECT_EQ(result->size(), 2u);
}

TEST_F(GlibcDnsResolverTest, ServersThatAreNotIPv4AddressesAreRefused) {
  auto result = resolve({"probe.example", {"dns.example", "2001:db8::1", "127.0.0.1:99999"}, 1s});
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().code, static_cast<int>(DnsResolver::ErrorCode::noUsableServer));
  EXPECT_EQ(responder_.queries(), 0);
}

}  // namespace
}  // namespace norvik
