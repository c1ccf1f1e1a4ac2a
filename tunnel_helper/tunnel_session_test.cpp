#include "tunnel_helper/tunnel_session.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/tunnel_service.h"
#include "testing/fakes.h"
#include "testing/virtual_event_loop.h"
#include "tunnel_helper/session_preparation.h"

namespace norvik::tunnel_helper {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

// Everything the session does to the system, in order, in one journal.
using Journal = std::vector<std::string>;

class FakeDevice final : public WireGuardDevice {
 public:
  explicit FakeDevice(Journal& journal) : journal_(journal) {}
  std::expected<std::string, Error> create() override {
    journal_.emplace_back("create");
    if (failCreate) return std::unexpected(Error{"POSIX", ENOENT, "нет wireguard-go"});
    return std::string("norvik0");
  }
  std::expected<void, Error> configure(const std::string& request) override {
    journal_.emplace_back("configure");
    configured = request;
    if (failConfigure) return std::unexpected(Error{"UAPI", 0, "errno=22"});
    return {};
  }
  std::expected<DeviceState, Error> readState() override {
    ++reads;
    if (unreadable) return std::unexpected(Error{"POSIX", ECONNREFUSED, "сокет не отвечает"});
    return state;
  }
  void destroy() override { journal_.emplace_back("destroy"); }

  bool failCreate = false;
  bool failConfigure = false;
  bool unreadable = false;
  DeviceState state;
  std::string configured;
  int reads = 0;

 private:
  Journal& journal_;
};

class FakeNetwork final : public NetworkConfigurator {
 public:
  explicit FakeNetwork(Journal& journal) : journal_(journal) {}
  void removeLeftovers() override { journal_.emplace_back("removeLeftovers"); }
  std::expected<void, Error> apply(const std::string& name, const RoutingPlan&) override {
    journal_.push_back("apply " + name);
    if (failApply) return std::unexpected(Error{"POSIX", EEXIST, "rule exists"});
    return {};
  }
  void connected() override { journal_.emplace_back("connected"); }
  void restore() override { journal_.emplace_back("restore"); }
  bool failApply = false;

 private:
  Journal& journal_;
};

class FakeDns final : public SystemDns {
 public:
  explicit FakeDns(Journal& journal) : journal_(journal) {}
  std::string name() const override { return "fake"; }
  void repairLeftovers() override { journal_.emplace_back("repairDns"); }
  std::expected<void, Error> apply(const std::string& name, const DnsPlan& plan) override {
    journal_.push_back(fmt::format("dns {} {}", name, plan.servers.front().toString()));
    if (failApply) return std::unexpected(Error{"POSIX", EROFS, "Read-only file system"});
    return {};
  }
  void restore() override { journal_.emplace_back("restoreDns"); }
  bool failApply = false;

 private:
  Journal& journal_;
};

class RecordingReporter final : public SessionReporter {
 public:
  void connecting(const std::string& name) override { events.push_back("connecting " + name); }
  void connected(const std::string& name, std::chrono::system_clock::time_point) override {
    events.push_back("connected " + name);
  }
  void telemetry(std::uint64_t id, const std::expected<DeviceState, Error>& state, const std::string&) override {
    events.push_back(fmt::format("telemetry {} {}", id, state ? std::to_string(state->receivedBytes()) : "error"));
  }
  void failed(const Error& error) override {
    events.push_back(fmt::format("failed {} {}", error.domain, error.code));
    lastError = error;
  }
  void stopped() override { events.emplace_back("stopped"); }
  std::vector<std::string> events;
  std::optional<Error> lastError;
};

class TunnelSessionTest : public ::testing::Test {
 protected:
  PeerState handshaken() {
    PeerState peer;
    peer.lastHandshake = std::chrono::system_clock::now();
    peer.receivedBytes = 92;
    return peer;
  }

  testing::VirtualEventLoop loop_;
  testing::CapturingLog log_;
  Journal journal_;
  FakeDevice device_{journal_};
  FakeNetwork network_{journal_};
  FakeDns dns_{journal_};
  RecordingReporter reporter_;
  TunnelSession session_{loop_, log_, device_, network_, dns_, reporter_, TunnelSession::Options{10s, 200ms}};
};

TEST_F(TunnelSessionTest, ConnectsOnTheFirstHandshakeAndStopsGivingTheNetworkBackFirst) {
  session_.start(PreparedSession{"set=1\n\n", {}});
  EXPECT_EQ(journal_, (Journal{"repairDns", "removeLeftovers", "create", "configure", "apply norvik0"}));
  EXPECT_EQ(reporter_.events, (std::vector<std::string>{"connecting norvik0"}));
  EXPECT_EQ(device_.configured, "set=1\n\n");

  loop_.advance(3s);
  EXPECT_EQ(session_.state(), TunnelSession::State::connecting);
  device_.state.peers.push_back(handshaken());
  loop_.advance(200ms);
  EXPECT_EQ(session_.state(), TunnelSession::State::connected);
  EXPECT_EQ(reporter_.events.back(), "connected norvik0");
  const int readsWhenConnected = device_.reads;
  loop_.advance(30s);
  EXPECT_EQ(device_.reads, readsWhenConnected) << "no polling once connected";
  EXPECT_EQ(reporter_.events.size(), 2u) << "the handshake time-out no longer applies";

  session_.requestTelemetry(7);
  EXPECT_EQ(reporter_.events.back(), "telemetry 7 92");

  session_.stop();
  EXPECT_EQ(journal_, (Journal{"repairDns", "removeLeftovers", "create", "configure", "apply norvik0", "connected",
                               "restore", "destroy"}))
      << "no DNS in the plan: the system's resolvers are not touched; what can wait follows the handshake";
  EXPECT_EQ(reporter_.events.back(), "stopped");
  session_.stop();
  EXPECT_EQ(reporter_.events.size(), 4u) << "a second stop does nothing";
  session_.requestTelemetry(8);
  EXPECT_EQ(reporter_.events.back(), "telemetry 8 error");
}

TEST_F(TunnelSessionTest, NoHandshakeInTimeIsConnectionFailedAfterCleaningUp) {
  device_.unreadable = true;  // a socket hiccup is logged and polled again, not fatal
  session_.start(PreparedSession{"set=1\n\n", {}});
  loop_.advance(9900ms);
  EXPECT_EQ(session_.state(), TunnelSession::State::connecting);
  device_.unreadable = false;
  loop_.advance(100ms);
  EXPECT_EQ(session_.state(), TunnelSession::State::ended);
  ASSERT_TRUE(reporter_.lastError.has_value());
  EXPECT_EQ(reporter_.lastError->domain, kNEVPNErrorDomain);
  EXPECT_EQ(reporter_.lastError->code, static_cast<int>(NEVPNErrorCode::connectionFailed));
  EXPECT_EQ(reporter_.lastError->message, "сервер не ответил на рукопожатие за 10 с");
  EXPECT_EQ(std::vector(journal_.end() - 2, journal_.end()), (Journal{"restore", "destroy"}));
  EXPECT_TRUE(log_.contains("состояние устройства не прочитано: сокет не отвечает"));
  EXPECT_EQ(loop_.pendingTimerCount(), 0u);
}

TEST_F(TunnelSessionTest, AFailedStepUndoesWhateverWasDoneBeforeIt) {
  struct Case {
    const char* name;
    std::function<void(FakeDevice&, FakeNetwork&)> breakIt;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"create", [](FakeDevice& d, FakeNetwork&) { d.failCreate = true; },
       "не удалось создать интерфейс WireGuard: нет wireguard-go"},
      {"configure", [](FakeDevice& d, FakeNetwork&) { d.failConfigure = true; },
       "устройство WireGuard не приняло настройки: errno=22"},
      {"apply", [](FakeDevice&, FakeNetwork& n) { n.failApply = true; }, "не удалось настроить маршруты: rule exists"},
  };
  for (const Case& c : cases) {
    Journal journal;
    FakeDevice device(journal);
    FakeNetwork network(journal);
    FakeDns dns(journal);
    RecordingReporter reporter;
    c.breakIt(device, network);
    TunnelSession session(loop_, log_, device, network, dns, reporter, {});
    session.start(PreparedSession{"set=1\n\n", {}});
    EXPECT_EQ(session.state(), TunnelSession::State::ended) << c.name;
    EXPECT_EQ(std::vector(journal.end() - 2, journal.end()), (Journal{"restore", "destroy"})) << c.name;
    ASSERT_TRUE(reporter.lastError.has_value()) << c.name;
    EXPECT_EQ(reporter.lastError->code, static_cast<int>(NEVPNErrorCode::configurationReadWriteFailed)) << c.name;
    EXPECT_EQ(reporter.lastError->message, c.message);
    EXPECT_EQ(std::ranges::count(reporter.events, std::string("connecting norvik0")), 0) << c.name;
  }
}

TEST_F(TunnelSessionTest, TheDeviceDyingEndsTheSessionAndDestroyingItRestoresToo) {
  session_.start(PreparedSession{"set=1\n\n", {}});
  session_.deviceEnded("сигнал 9");
  EXPECT_EQ(reporter_.lastError->message, "процесс WireGuard завершился: сигнал 9");
  EXPECT_EQ(reporter_.lastError->code, static_cast<int>(NEVPNErrorCode::connectionFailed));
  session_.deviceEnded("again");
  EXPECT_EQ(std::ranges::count_if(reporter_.events, [](const std::string& e) { return e.starts_with("failed"); }), 1);

  Journal journal;
  FakeDevice device(journal);
  FakeNetwork network(journal);
  FakeDns dns(journal);
  RecordingReporter reporter;
  {
    TunnelSession running(loop_, log_, device, network, dns, reporter, {});
    running.start(PreparedSession{"set=1\n\n", {}});
  }
  EXPECT_EQ(std::vector(journal.end() - 2, journal.end()), (Journal{"restore", "destroy"}));
}

PreparedSession withDns() {
  PreparedSession prepared{"set=1\n\n", {}};
  prepared.plan.dns = DnsPlan{{*IpAddress::parse("10.64.0.1")}, {"corp.example"}};
  return prepared;
}

TEST_F(TunnelSessionTest, ResolversAreSetAfterTheRoutesAndGivenBackBeforeThem) {
  session_.start(withDns());
  EXPECT_EQ(journal_,
            (Journal{"repairDns", "removeLeftovers", "create", "configure", "apply norvik0", "dns norvik0 10.64.0.1"}));
  session_.stop();
  EXPECT_EQ(std::vector(journal_.end() - 3, journal_.end()), (Journal{"restoreDns", "restore", "destroy"}));

  // A death of the device gives them back the same way, once.
  Journal journal;
  FakeDevice device(journal);
  FakeNetwork network(journal);
  FakeDns dns(journal);
  RecordingReporter reporter;
  TunnelSession dying(loop_, log_, device, network, dns, reporter, {});
  dying.start(withDns());
  dying.deviceEnded("сигнал 9");
  dying.stop();
  EXPECT_EQ(std::ranges::count(journal, std::string("restoreDns")), 1);
}

TEST_F(TunnelSessionTest, ResolversThatCannotBeSetFailTheSessionRatherThanLeakNames) {
  dns_.failApply = true;
  session_.start(withDns());
  EXPECT_EQ(session_.state(), TunnelSession::State::ended);
  ASSERT_TRUE(reporter_.lastError.has_value());
  EXPECT_EQ(reporter_.lastError->code, static_cast<int>(NEVPNErrorCode::configurationReadWriteFailed));
  EXPECT_EQ(reporter_.lastError->message, "не удалось настроить DNS (fake): Read-only file system");
  EXPECT_EQ(std::vector(journal_.end() - 3, journal_.end()), (Journal{"restoreDns", "restore", "destroy"}))
      << "a half-done change is taken back too";
  EXPECT_EQ(std::ranges::count(reporter_.events, std::string("connecting norvik0")), 0);
}

// Preparation: all of it happens before the system is touched, so a refusal here changes nothing.
constexpr char kSessionKey[] =
    "[Interface]\nPrivateKey = jBA55xcLAlLrUOQji5V5t0IDhYd+C6Rxk/cqp3msWuo=\nAddress = 10.66.1.2/32\n[Peer]\n"
    "PublicKey = v/7M2+2OWnKiY1bBBRCZdonA03KacdWGweHDlBqeHIk=\nAllowedIPs = 0.0.0.0/0\nEndpoint = "
    "vpn.example.net:51820\n";

HostResolver resolverFor(const std::map<std::string, std::string>& table, std::vector<std::string>* asked = nullptr) {
  auto mutex = std::make_shared<std::mutex>();
  return [table, asked, mutex](const std::string& host) -> std::expected<std::vector<IpAddress>, std::string> {
    {
      std::lock_guard lock(*mutex);
      if (asked) asked->push_back(host);
    }
    auto it = table.find(host);
    if (it == table.end()) return std::unexpected(std::string("Name or service not known"));
    return std::vector<IpAddress>{*IpAddress::parse(it->second)};
  };
}

TEST(SessionPreparationTest, ResolvesTheEndpointIntoTheDeviceConfiguration) {
  auto prepared = prepareSession(Json{{"wgQuickConfig", kSessionKey}, {"routing.goMode", "2"}},
                                 resolverFor({{"vpn.example.net", "10.200.0.1"}}));
  ASSERT_TRUE(prepared.has_value()) << prepared.error().message;
  EXPECT_NE(prepared->session.setRequest.find("endpoint=10.200.0.1:51820\n"), std::string::npos);
  EXPECT_NE(prepared->session.setRequest.find("fwmark=28278\n"), std::string::npos);
  EXPECT_EQ(prepared->settings.mode, TunnelRoutingMode::full);
}

TEST(SessionPreparationTest, RefusalsCarryTheirCodeAndNeverTheKey) {
  auto bad = prepareSession(Json{{"wgQuickConfig", "[Interface]\nPrivateKey = short=\n"}}, resolverFor({}));
  ASSERT_FALSE(bad.has_value());
  EXPECT_EQ(bad.error().code, static_cast<int>(NEVPNErrorCode::configurationInvalid));
  EXPECT_EQ(bad.error().message.find("short"), std::string::npos);

  auto unresolved = prepareSession(Json{{"wgQuickConfig", kSessionKey}}, resolverFor({}));
  ASSERT_FALSE(unresolved.has_value());
  EXPECT_EQ(unresolved.error().code, static_cast<int>(NEVPNErrorCode::connectionFailed));
  EXPECT_EQ(unresolved.error().message,
            "строка 4: Endpoint «vpn.example.net:51820» не разрешается: Name or service not known");

  // The made-up servers of a development backend: nothing is sent towards them.
  auto documentation =
      prepareSession(Json{{"wgQuickConfig", kSessionKey}}, resolverFor({{"vpn.example.net", "203.0.113.10"}}));
  ASSERT_FALSE(documentation.has_value());
  EXPECT_NE(documentation.error().message.find("адрес из диапазона для документации"), std::string::npos);
}

TEST(SessionPreparationTest, SmartWithoutAListAndServicesWithWatchDomains) {
  auto smart =
      prepareSession(Json{{"wgQuickConfig", kSessionKey}, {"geodata.geoip_cache.path", "/nonexistent/geoip.txt"}},
                     resolverFor({{"vpn.example.net", "10.200.0.1"}}));
  ASSERT_TRUE(smart.has_value());
  // The list is read after the connect, with its routes: nothing of it delays the start.
  EXPECT_TRUE(std::ranges::none_of(smart->session.plan.routes, [](const PlannedRoute& r) { return r.bypass; }));
  EXPECT_EQ(smart->session.plan.bypassList, std::filesystem::path("/nonexistent/geoip.txt"));
  auto noList = prepareSession(Json{{"wgQuickConfig", kSessionKey}}, resolverFor({{"vpn.example.net", "10.200.0.1"}}));
  ASSERT_TRUE(noList.has_value());
  EXPECT_FALSE(noList->session.plan.bypassList.has_value());
  EXPECT_NE(std::ranges::find(noList->notes, "списка GeoIP нет — умный режим ведёт всё через туннель"),
            noList->notes.end());
  auto full = prepareSession(
      Json{{"wgQuickConfig", kSessionKey}, {"routing.goMode", "2"}, {"geodata.geoip_cache.path", "/var/geoip.txt"}},
      resolverFor({{"vpn.example.net", "10.200.0.1"}}));
  ASSERT_TRUE(full.has_value());
  EXPECT_FALSE(full->session.plan.bypassList.has_value()) << "the list is for the smart mode only";

  std::vector<std::string> asked;
  auto services = prepareSession(
      Json{{"wgQuickConfig", kSessionKey},
           {"routing.goMode", "1"},
           {"routing.watchDomains", "a.example\nb.example\nc.example"}},
      resolverFor({{"vpn.example.net", "10.200.0.1"}, {"a.example", "10.5.0.1"}, {"c.example", "10.5.0.3"}}, &asked));
  ASSERT_TRUE(services.has_value());
  std::vector<std::string> routes;
  for (const PlannedRoute& r : services->session.plan.routes) routes.push_back(r.prefix.toString());
  std::ranges::sort(routes);
  EXPECT_EQ(routes, (std::vector<std::string>{"10.5.0.1/32", "10.5.0.3/32"}));
  EXPECT_NE(std::ranges::find(services->notes, "не разрешились домены: 1 из 3"), services->notes.end());
  EXPECT_EQ(asked.size(), 4u);
}

}  // namespace
}  // namespace norvik::tunnel_helper
