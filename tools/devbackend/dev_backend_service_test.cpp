// The backend behind its HTTP server, driven by the product's own NetworkService on virtual time.
#include "tools/devbackend/dev_backend_service.h"

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>

#include "backend/endpoints.h"
#include "routing/geoip_payload.h"
#include "testing/fake_device_socket.h"
#include "testing/temp_dir.h"
#include "testing/test_provisioning.h"
#include "tools/devbackend/devbackend_test_support.h"
#include "tools/devbackend/documents.h"
#include "tools/devbackend/wireguard_keys.h"
#include "tunnel/key_text.h"
#include "tunnel_helper/ip_prefix.h"

namespace norvik::devbackend {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testsupport::ManualClock;

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    out.push_back(text.substr(start, end - start));
  }
  if (start < text.size()) out.push_back(text.substr(start));
  return out;
}

// The value of "Key = Value" in a key text.
std::string keyValue(const std::string& text, const std::string& key) {
  for (const auto& line : lines(text)) {
    if (line.starts_with(key + " = ")) return line.substr(key.size() + 3);
  }
  return {};
}

class DevBackendServiceTest : public ::testing::Test {
 protected:
  DevBackendServiceTest() { backend_ = make(config()); }

  DevBackendConfig config() const {
    DevBackendConfig c;
    c.apiHmacKey = toBytes(provisioning_.apiHmacKey);
    c.aesKey = testing::testAesKey();
    c.servers = defaultServers();
    return c;
  }

  std::unique_ptr<DevBackendService> make(DevBackendConfig c, FaultPlan faults = {}) {
    auto store = DeviceStore::open(dir_ / "state.json");
    EXPECT_TRUE(store.has_value());
    auto made = DevBackendService::create(std::move(c), std::move(*store), std::move(faults), serverClock_, crypto_,
                                          serverLog_);
    EXPECT_TRUE(made.has_value()) << made.error().message;
    testsupport::routeTo(transport_, **made);
    return std::move(*made);
  }

  // Runs one client operation to its end on virtual time.
  template <class T>
  std::expected<T, APIError> await(std::function<void(APICompletion<T>)> start) {
    std::optional<std::expected<T, APIError>> result;
    start([&](std::expected<T, APIError> r) { result = std::move(r); });
    EXPECT_TRUE(device_.loop.runUntil([&] { return result.has_value(); }));
    return result ? std::move(*result) : std::unexpected(APIError{"TEST", "no answer"});
  }
  std::expected<VPNKeyResponse, APIError> getKey() {
    return await<VPNKeyResponse>([&](auto done) { client_.getKey(std::move(done)); });
  }
  std::expected<VPNKeyResponse, APIError> changeServer() {
    return await<VPNKeyResponse>([&](auto done) { client_.changeServer(std::move(done)); });
  }
  std::expected<NetworkService::MainResponse, APIError> loadMain() {
    return await<NetworkService::MainResponse>([&](auto done) { client_.loadMainConfiguration(std::move(done)); });
  }

  // One signed request as the client builds it, handed to the backend as it arrives.
  BackendRequest signedRequest(const Endpoint& endpoint) {
    auto built = client_.buildRequest(endpoint, json::object());
    EXPECT_TRUE(built.has_value());
    return BackendRequest{"POST", "/api/" + std::string(endpoint.name), built->headers, built->body, "127.0.0.1"};
  }

  json admin(const std::string& method, const std::string& path, const json& body = nullptr, int expected = 200) {
    BackendReply reply = backend_->handle({method, path, {}, body.is_null() ? "" : body.dump(), "127.0.0.1"});
    EXPECT_EQ(reply.status, expected) << path << ": " << reply.body;
    return json::parse(reply.body, nullptr, false);
  }
  std::vector<std::string> recorded(const std::string& field, const std::string& endpoint) {
    std::vector<std::string> out;
    const json document = admin("GET", "/admin/requests");
    for (const auto& r : document["requests"]) {
      if (r["endpoint"] == endpoint)
        out.push_back(r[field].is_string() ? r[field].get<std::string>() : r[field].dump());
    }
    return out;
  }

  testing::TempDir dir_;
  Provisioning provisioning_ = testing::testProvisioning();
  ManualClock serverClock_;
  OpenSslCrypto crypto_;
  testing::CapturingLog serverLog_;
  testsupport::Device device_{provisioning_};
  testing::FakeHttpTransport transport_{device_.loop};
  NetworkService client_ = device_.service(transport_, "https://127.0.0.1:8443/api/");
  std::unique_ptr<DevBackendService> backend_;
};

// --- Signatures ---

TEST_F(DevBackendServiceTest, ASignedRequestIsServedOnceAndItsReplayIsRefused) {
  const BackendRequest request = signedRequest(endpoints::kMain);
  EXPECT_EQ(backend_->handle(request).status, 200);
  const BackendReply replay = backend_->handle(request);
  EXPECT_EQ(replay.status, 401);
  const json body = json::parse(replay.body);
  EXPECT_EQ(body["title"], "Ошибка авторизации");
  EXPECT_EQ(body["message"], "Повторный запрос отклонён.");
  EXPECT_EQ(recorded("verdict", "main"), (std::vector<std::string>{"ok", "replayed_nonce"}));
}

TEST_F(DevBackendServiceTest, TheSameRequestRetriedAfterAFaultIsServed) {
  // The client re-sends the very same signed request after a 503; that is no replay.
  admin("POST", "/admin/faults", {{"status", "main:503:1"}});
  const BackendRequest request = signedRequest(endpoints::kMain);
  EXPECT_EQ(backend_->handle(request).status, 503);
  EXPECT_EQ(backend_->handle(request).status, 200);
}

TEST_F(DevBackendServiceTest, ATimestampMoreThanFiveMinutesOffIsRefused) {
  serverClock_.advance(-299s);
  EXPECT_EQ(backend_->handle(signedRequest(endpoints::kMain)).status, 200) << "299 s ahead is inside the window";
  serverClock_.advance(600s);
  const BackendReply late = backend_->handle(signedRequest(endpoints::kMain));
  EXPECT_EQ(late.status, 401);
  EXPECT_EQ(recorded("verdict", "main").back(), "stale_timestamp");
  EXPECT_NE(recorded("detail", "main").back().find("-301 s"), std::string::npos);
}

TEST_F(DevBackendServiceTest, ABodyChangedAfterSigningOrMissingHeadersAreRefused) {
  BackendRequest tampered = signedRequest(endpoints::kGetKey);
  tampered.body.insert(tampered.body.size() - 1, R"(,"extra":1)");
  const BackendReply refused = backend_->handle(tampered);
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(json::parse(refused.body)["message"], "Подпись запроса не прошла проверку.");

  BackendRequest unsigned_ = signedRequest(endpoints::kGetKey);
  unsigned_.headers.clear();
  EXPECT_EQ(backend_->handle(unsigned_).status, 401);
  EXPECT_EQ(recorded("verdict", "getkey"), (std::vector<std::string>{"bad_signature", "missing_headers"}));
  EXPECT_TRUE(admin("GET", "/admin/devices")["devices"].empty()) << "no device is made from a refused request";
}

TEST_F(DevBackendServiceTest, AClientWithOtherKeysGetsUnauthorizedWithTheServersWords) {
  Provisioning other = provisioning_;
  other.apiHmacKey = "some-other-deployment";
  testsupport::Device stranger(other);
  testing::FakeHttpTransport transport(stranger.loop);
  testsupport::routeTo(transport, *backend_);
  NetworkService client = stranger.service(transport, "https://127.0.0.1:8443/api/");
  std::optional<std::expected<VPNKeyResponse, APIError>> key;
  client.getKey([&](auto r) { key = std::move(r); });
  ASSERT_TRUE(stranger.loop.runUntil([&] { return key.has_value(); }));
  ASSERT_FALSE(key->has_value());
  EXPECT_EQ(key->error().code, "UNAUTHORIZED");
  EXPECT_EQ(key->error().title, "Ошибка авторизации");
  EXPECT_EQ(transport.sent().size(), 1u) << "a 401 is not retried";
}

// --- Keys and servers ---

TEST_F(DevBackendServiceTest, GetKeyIssuesAFreshX25519KeyInTheRealKeyTextForm) {
  auto first = getKey();
  ASSERT_TRUE(first.has_value()) << first.error().message;
  ASSERT_TRUE(first->keyData.has_value());
  const std::string& text = *first->keyData;
  const std::vector<std::string> expectedKeys = {
      "[Interface]", "PrivateKey",         "Address", "DNS", "", "[Peer]", "PublicKey", "PresharedKey", "AllowedIPs",
      "Endpoint",    "PersistentKeepalive"};
  const auto textLines = lines(text);
  ASSERT_EQ(textLines.size(), expectedKeys.size()) << text;
  for (std::size_t i = 0; i < textLines.size(); ++i) {
    EXPECT_TRUE(textLines[i].starts_with(expectedKeys[i])) << textLines[i];
  }
  for (const char* key : {"PrivateKey", "PublicKey", "PresharedKey"}) {
    EXPECT_EQ(keyValue(text, key).size(), 44u) << key;
    EXPECT_TRUE(isWireGuardKey(keyValue(text, key))) << key;
  }
  EXPECT_EQ(keyValue(text, "Address"), "10.66.1.2/32");
  EXPECT_EQ(keyValue(text, "Endpoint"), "203.0.113.10:51820");
  EXPECT_EQ(first->keyIP, "203.0.113.10");
  EXPECT_EQ(extractServerAddress(normalizeKeyText(text)), first->keyIP) << "the client finds the same server";
  EXPECT_EQ(first->result, 1);

  // The peer list carries the public half of exactly this private key, for a real server peer.
  const json peers = admin("GET", "/admin/peers")["servers"][0];
  EXPECT_EQ(peers["public_key"], keyValue(text, "PublicKey"));
  ASSERT_EQ(peers["peers"].size(), 1u);
  EXPECT_EQ(peers["peers"][0]["public_key"], wireGuardPublicKey(keyValue(text, "PrivateKey")).value());
  EXPECT_EQ(peers["peers"][0]["preshared_key"], keyValue(text, "PresharedKey"));
  EXPECT_EQ(peers["peers"][0]["allowed_ips"], "10.66.1.2/32");

  // A second key is new, on the same address, and the first one is no longer active.
  auto second = getKey();
  ASSERT_TRUE(second.has_value());
  EXPECT_NE(keyValue(*second->keyData, "PrivateKey"), keyValue(text, "PrivateKey"));
  EXPECT_EQ(keyValue(*second->keyData, "Address"), "10.66.1.2/32");
  const json after = admin("GET", "/admin/peers")["servers"][0]["peers"];
  ASSERT_EQ(after.size(), 2u);
  EXPECT_FALSE(after[0]["active"]);
  EXPECT_TRUE(after[1]["active"]);

  // The main configuration then carries the device's current key, so the client sees no change.
  auto main = loadMain();
  ASSERT_TRUE(main.has_value());
  EXPECT_EQ((*main)->main.keyData, second->keyData);
  EXPECT_EQ((*main)->main.keyIP, "203.0.113.10");
}

TEST_F(DevBackendServiceTest, ChangeServerMovesToTheNextServerAndWrapsAround) {
  ASSERT_TRUE(getKey().has_value());
  auto moved = changeServer();
  ASSERT_TRUE(moved.has_value());
  EXPECT_EQ(moved->keyIP, "198.51.100.7");
  EXPECT_EQ(moved->serverName, "de-fra-1");
  EXPECT_EQ(keyValue(*moved->keyData, "Address"), "10.66.2.2/32");
  const auto servers = backend_->servers();
  EXPECT_EQ(keyValue(*moved->keyData, "PublicKey"), servers[1].publicKey);
  EXPECT_NE(servers[0].publicKey, servers[1].publicKey);

  auto back = changeServer();
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->keyIP, "203.0.113.10");
  EXPECT_EQ(keyValue(*back->keyData, "Address"), "10.66.1.2/32") << "a device keeps its address on a server";
}

TEST_F(DevBackendServiceTest, WithoutASubscriptionChangeServerIsForbiddenAndGetKeySaysWhyInItsBody) {
  ASSERT_TRUE(loadMain().has_value());
  admin("POST", "/admin/subscription", {{"active", false}});

  auto change = changeServer();
  ASSERT_FALSE(change.has_value());
  EXPECT_EQ(change.error().code, "FORBIDDEN");
  EXPECT_EQ(change.error().message, "Для смены сервера требуется активная подписка");
  EXPECT_EQ(recorded("status", "change_server"), (std::vector<std::string>{"403"}));

  auto key = getKey();
  ASSERT_TRUE(key.has_value());
  EXPECT_EQ(key->error, "subscription_inactive");
  EXPECT_FALSE(key->keyData.has_value());

  auto main = loadMain();
  ASSERT_TRUE(main.has_value());
  EXPECT_EQ((*main)->main.subActive, false);
  EXPECT_EQ((*main)->subPanel->state, "expired");

  admin("POST", "/admin/subscription", {{"active", true}, {"days", 7}});
  main = loadMain();
  EXPECT_EQ((*main)->main.subActive, true);
  EXPECT_EQ((*main)->main.subExpireTs, testsupport::kStart + 7 * 86400);
  EXPECT_TRUE(changeServer().has_value());
}

// --- The main configuration ---

TEST_F(DevBackendServiceTest, MainCarriesEverySectionTheClientReadsAndNoLinkDomain) {
  auto main = loadMain();
  ASSERT_TRUE(main.has_value()) << main.error().message;
  const APIResponse& r = **main;
  EXPECT_EQ(r.main.subActive, true);
  EXPECT_EQ(r.main.serverTime, testsupport::kStart);
  EXPECT_EQ(r.main.subExpireTs, testsupport::kStart + 30 * 86400);
  EXPECT_FALSE(r.main.mainDomain.has_value()) << "link_domain would move every later request";
  EXPECT_FALSE(r.main.keyData.has_value()) << "no key before getkey";
  ASSERT_TRUE(r.main.smartStatus.has_value());
  EXPECT_EQ((*r.main.smartStatus)["enabled"], false);
  EXPECT_EQ(r.main.iosFixedEnable, true);
  ASSERT_TRUE(r.main.iosFixes && r.main.iosFixes->is_object());
  ASSERT_TRUE(r.routing.has_value());
  EXPECT_EQ(r.routing->allowedModes, (std::vector<std::int64_t>{0, 1, 2}));
  ASSERT_TRUE(r.routing->services.has_value());
  EXPECT_GE(r.routing->services->size(), 3u);
  EXPECT_TRUE(r.subPanel.has_value());

  // The GeoIP version follows the list: a new list, a new version; the same list, the same one.
  const auto version = r.main.geoipVersion.value_or("");
  admin("POST", "/admin/geoip", {{"count", 1500}});
  const auto changed = (*loadMain())->main.geoipVersion.value_or("");
  EXPECT_NE(changed, version);
  admin("POST", "/admin/geoip", {{"count", 10000}});
  EXPECT_EQ((*loadMain())->main.geoipVersion, version);

  // The service lists' version is the one routing announces.
  auto lists = await<ServiceListsResponse>([&](auto done) { client_.fetchServiceLists(std::move(done)); });
  ASSERT_TRUE(lists.has_value());
  EXPECT_EQ(lists->version, r.routing->listsVersion);
  for (const char* key : {"youtube", "instagram", "whatsapp", "telegram", "tiktok", "discord", "chatgpt", "claude"}) {
    EXPECT_FALSE(lists->services->at(key).empty()) << key;
  }
}

TEST_F(DevBackendServiceTest, ALinkDomainAndAPatchAreSentOnlyWhenAsked) {
  DevBackendConfig c = config();
  c.linkDomain = "127.0.0.1:9443";
  c.mainPatch = {{"main", {{"alert_message", "Плановые работы"}}}, {"routing", {{"kill_switch", true}}}};
  backend_ = make(c);
  auto main = loadMain();
  ASSERT_TRUE(main.has_value());
  EXPECT_EQ((*main)->main.mainDomain, "127.0.0.1:9443");
  EXPECT_EQ((*main)->main.alertMessage, "Плановые работы");
  EXPECT_EQ((*main)->routing->killSwitch, true);
  EXPECT_EQ((*main)->routing->allowedModes, (std::vector<std::int64_t>{0, 1, 2})) << "a patch keeps the rest";
}

// --- Faults ---

TEST_F(DevBackendServiceTest, AStatusFaultAnswersExactlyItsCountOfAttempts) {
  admin("POST", "/admin/faults", {{"status", "main:503:2"}});
  auto main = loadMain();
  ASSERT_TRUE(main.has_value()) << "the client's third attempt gets through";
  EXPECT_EQ(recorded("status", "main"), (std::vector<std::string>{"503", "503", "200"}));
  EXPECT_EQ(recorded("verdict", "main"), (std::vector<std::string>{"ok", "ok", "ok"}));
  EXPECT_EQ(device_.loop.elapsed(), 4s) << "two retry waits of 2 s";
  EXPECT_TRUE(admin("GET", "/admin/faults")["status"].empty());

  admin("POST", "/admin/faults", {{"status", "main:503"}});
  auto storm = loadMain();
  ASSERT_FALSE(storm.has_value());
  EXPECT_EQ(storm.error().code, "SERVER_OVERLOAD");
  EXPECT_EQ(storm.error().message, "Сервер перегружен. Попробуйте через несколько минут.");
  EXPECT_EQ(recorded("status", "main").size(), 3u + 4u) << "a fault without a count stays";
}

TEST_F(DevBackendServiceTest, AMalformedBodyIsADecodeErrorForTheClientAndADelayIsReported) {
  admin("POST", "/admin/faults", {{"malformed", "main:1"}, {"delay", "getkey:20000:1"}});
  auto broken = loadMain();
  ASSERT_FALSE(broken.has_value());
  EXPECT_EQ(broken.error().code, "DECODE_ERROR");
  EXPECT_TRUE(loadMain().has_value()) << "the second answer is whole again";

  const BackendReply slow = backend_->handle(signedRequest(endpoints::kGetKey));
  EXPECT_EQ(slow.delay, 20s);
  EXPECT_EQ(slow.status, 200) << "the backend acts at once and holds the answer back";
  EXPECT_EQ(backend_->handle(signedRequest(endpoints::kGetKey)).delay, 0ms);
  EXPECT_TRUE(serverLog_.contains("verdict=ok status=200 delay=20000ms"));
  EXPECT_EQ(recorded("malformed", "main"), (std::vector<std::string>{"true", "false"}));
}

// --- Admin ---

TEST_F(DevBackendServiceTest, TheAdminApiAnswersOnlyOnLoopbackAndABadFaultChangesNothing) {
  const BackendReply remote = backend_->handle({"GET", "/admin/requests", {}, "", "192.0.2.8"});
  EXPECT_EQ(remote.status, 403);
  EXPECT_EQ(backend_->handle({"GET", "/admin/requests", {}, "", "::1"}).status, 200);

  const json refused = admin("POST", "/admin/faults", {{"status", json::array({"main:503:1", "getkey:99"})}}, 400);
  EXPECT_NE(refused["error"].get<std::string>().find("\"getkey:99\""), std::string::npos);
  EXPECT_TRUE(admin("GET", "/admin/faults")["status"].empty()) << "the good half was not applied either";
}

TEST_F(DevBackendServiceTest, ResetForgetsDevicesFaultsAndRequests) {
  ASSERT_TRUE(getKey().has_value());
  admin("POST", "/admin/faults", {{"status", "main:500"}});
  admin("POST", "/admin/reset");
  EXPECT_TRUE(admin("GET", "/admin/devices")["devices"].empty());
  EXPECT_TRUE(admin("GET", "/admin/requests")["requests"].empty());
  auto main = loadMain();
  ASSERT_TRUE(main.has_value());
  EXPECT_FALSE((*main)->main.keyData.has_value());
}

// --- Lasting state ---

TEST_F(DevBackendServiceTest, DevicesKeysAndServerKeysSurviveARestart) {
  auto key = getKey();
  ASSERT_TRUE(key.has_value());
  ASSERT_TRUE(changeServer().has_value());
  const auto servers = backend_->servers();
  backend_.reset();

  backend_ = make(config());
  EXPECT_EQ(backend_->servers()[0].publicKey, servers[0].publicKey);
  EXPECT_EQ(backend_->servers()[1].publicKey, servers[1].publicKey);
  auto main = loadMain();
  ASSERT_TRUE(main.has_value());
  EXPECT_EQ((*main)->main.keyIP, "198.51.100.7") << "the device is still on the server it moved to";
  const json peers = admin("GET", "/admin/peers");
  EXPECT_EQ(peers["servers"][0]["peers"].size(), 1u);
  EXPECT_EQ(peers["servers"][1]["peers"].size(), 1u);
}

TEST_F(DevBackendServiceTest, ASubscriptionMovesToAnotherDeviceWithAOneTimeCode) {
  auto code = await<MoveCodeResponse>([&](auto done) { client_.requestMoveCode("MacBook", std::move(done)); });
  ASSERT_TRUE(code.has_value() && code->request.has_value());

  testsupport::Device other(provisioning_);
  testing::FakeHttpTransport transport(other.loop);
  testsupport::routeTo(transport, *backend_);
  NetworkService otherClient = other.service(transport, "https://127.0.0.1:8443/api/");
  std::vector<TransferResponse> answers;
  for (int i = 0; i < 2; ++i) {
    otherClient.moveSubscription(*code->request, "iMac", [&](auto r) { answers.push_back(r.value()); });
    ASSERT_TRUE(other.loop.runUntil([&] { return answers.size() == static_cast<std::size_t>(i + 1); }));
  }
  EXPECT_EQ(answers[0].status, true);
  EXPECT_EQ(answers[1].status, false) << "a code works once";
  EXPECT_EQ((*loadMain())->main.subActive, false) << "the first device gave its subscription away";
}

TEST_F(DevBackendServiceTest, AServerWithADeviceSocketGetsEachIssuedKeyAsAPeer) {
  DevBackendConfig c = config();
  c.servers[0].uapiSocket = (dir_ / "wg0.sock").string();
  backend_ = make(std::move(c));
  const auto server = backend_->servers()[0];
  std::string request;
  {
    testing::FakeDeviceSocket device(dir_ / "wg0.sock", "errno=0\n\n");
    auto key = getKey();
    ASSERT_TRUE(key.has_value()) << key.error().message;
    // The device is told its own identity and the client's half of the key, in hex as it reads them.
    auto hex = [](const std::string& base64) {
      auto bytes = base64Decode(base64);
      return hexLower(ByteView(bytes->data(), bytes->size()));
    };
    const json peers = admin("GET", "/admin/peers")["servers"][0]["peers"];
    request = device.request();
    EXPECT_TRUE(request.starts_with("set=1\nprivate_key=")) << request;
    EXPECT_NE(request.find("listen_port=51820\n"), std::string::npos);
    EXPECT_NE(request.find("public_key=" + hex(peers[0]["public_key"])), std::string::npos);
    EXPECT_NE(request.find("preshared_key=" + hex(peers[0]["preshared_key"])), std::string::npos);
    EXPECT_NE(request.find("allowed_ip=10.66.1.2/32\n\n"), std::string::npos);
    EXPECT_EQ(request.find(hex(keyValue(*key->keyData, "PrivateKey"))), std::string::npos)
        << "the client's private half never leaves the key text";
  }
  // A device that is not there costs the client nothing: the key is still issued, the log says why.
  std::filesystem::remove(dir_ / "wg0.sock");
  auto again = changeServer();
  ASSERT_TRUE(again.has_value());
  auto back = changeServer();
  ASSERT_TRUE(back.has_value()) << back.error().message;
  EXPECT_TRUE(serverLog_.contains("did not take the peer")) << server.name;
}

}  // namespace
}  // namespace norvik::devbackend

namespace norvik::devbackend {
namespace {

// The country-sized list is what the smart mode is checked against at scale: it must have a real
// list's size and shape, and the client must take all of it.
TEST(CountryGeoIPListTest, TwentyThousandAndFiveThousandAggregatedRangesThatTheClientAccepts) {
  const VersionedText list = countryGeoIPList();
  EXPECT_EQ(list.text, countryGeoIPList().text) << "the same list on every run";
  EXPECT_TRUE(list.version.starts_with("dev-country-"));
  auto accepted = acceptGeoIPPayload(list.text);
  ASSERT_TRUE(accepted.has_value());
  EXPECT_EQ(accepted->cidrCount, 25'000u);
  EXPECT_EQ(accepted->malformedCount, 0u);

  std::vector<tunnel_helper::IpPrefix> v4;
  std::vector<tunnel_helper::IpPrefix> v6;
  std::size_t start = 0;
  for (std::size_t end = list.text.find('\n'); end != std::string::npos; end = list.text.find('\n', start)) {
    auto prefix = tunnel_helper::IpPrefix::parse(std::string_view(list.text).substr(start, end - start));
    ASSERT_TRUE(prefix.has_value()) << list.text.substr(start, end - start);
    EXPECT_EQ(*prefix, prefix->masked()) << prefix->toString();
    (prefix->address.isV4() ? v4 : v6).push_back(*prefix);
    start = end + 1;
  }
  ASSERT_EQ(v4.size(), 20'000u);
  ASSERT_EQ(v6.size(), 5'000u);
  EXPECT_EQ(v4.front().toString(), "5.3.0.0/24");
  EXPECT_EQ(v6.front().toString(), "2a00:1148::/32");
  std::map<int, int> lengths;
  for (const auto* family : {&v4, &v6}) {
    for (std::size_t i = 1; i < family->size(); ++i) {
      const auto& previous = (*family)[i - 1];
      const auto& next = (*family)[i];
      ++lengths[next.length];
      // Sorted, apart and not mergeable: the next range starts beyond the previous one's end,
      // and two equal neighbours are never the halves of one shorter prefix.
      EXPECT_LT(previous.address, next.address);
      EXPECT_FALSE(previous.contains(next.address)) << previous.toString() << " " << next.toString();
      if (previous.length == next.length && previous.length > 0) {
        auto parent = previous;
        parent.length -= 1;
        EXPECT_FALSE(parent.masked().contains(next.address)) << previous.toString() << " " << next.toString();
      }
    }
  }
  // The shape of a real list: /24 the most common, a spread from /16 to /24 and /29 to /48.
  EXPECT_GT(lengths[24], 8000);
  EXPECT_GT(lengths[16], 50);
  EXPECT_GT(lengths[48], 1000);
  EXPECT_GT(lengths[29], 300);
}

}  // namespace
}  // namespace norvik::devbackend
