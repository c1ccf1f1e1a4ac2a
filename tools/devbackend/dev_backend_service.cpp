#include "tools/devbackend/dev_backend_service.h"

#include <fmt/format.h>

#include "backend/endpoints.h"
#include "tools/devbackend/documents.h"
#include "tools/devbackend/wireguard_keys.h"
#include "tunnel_helper/uapi.h"

namespace norvik::devbackend {
namespace {

using nlohmann::json;

constexpr std::size_t kMaxRecords = 10'000;
constexpr std::int64_t kMoveCodeLifetime = 15 * 60;
constexpr std::string_view kFeedPath = "/mac/appcast.xml";
// The Linux client reads its own feed; here both offer the same release file.
constexpr std::string_view kLinuxFeedPath = "/linux/appcast.xml";
constexpr std::string_view kDownloadsPrefix = "/mac/downloads/";
constexpr std::string_view kNotesPrefix = "/mac/notes/";

BackendReply jsonReply(int status, const json& body) { return {status, body.dump(), "application/json", {}, {}}; }

BackendReply errorReply(int status, std::string_view title, std::string_view message) {
  return {status, serverErrorBody(title, message), "application/json", {}, {}};
}

std::string isoDate(std::int64_t seconds) {
  // ISO 8601 in UTC, "2027-02-14T08:00:00Z", for "expiresAt".
  const std::chrono::sys_seconds t{std::chrono::seconds(seconds)};
  const auto day = std::chrono::floor<std::chrono::days>(t);
  const std::chrono::year_month_day ymd{day};
  const std::chrono::hh_mm_ss time{t - day};
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(ymd.year()),
                     static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), time.hours().count(),
                     time.minutes().count(), time.seconds().count());
}

// The status a refused signature gets, with the words the client shows for it.
BackendReply refusal(Verdict verdict) {
  switch (verdict) {
    case Verdict::staleTimestamp:
      return errorReply(401, "Ошибка авторизации",
                        "Время запроса расходится с часами сервера. Проверьте часы устройства.");
    case Verdict::replayedNonce:
      return errorReply(401, "Ошибка авторизации", "Повторный запрос отклонён.");
    case Verdict::badIdentity:
      return errorReply(400, "Ошибка запроса", "Не удалось прочитать идентификатор устройства.");
    case Verdict::missingHeaders:
    case Verdict::badTimestamp:
    case Verdict::badSignature:
    default:
      return errorReply(401, "Ошибка авторизации", "Подпись запроса не прошла проверку.");
  }
}

BackendReply faultReply(int status) {
  switch (status) {
    case 503:
      return errorReply(503, "Сервер перегружен", "Сервер перегружен. Попробуйте через несколько минут.");
    case 429:
      return errorReply(429, "Слишком много запросов", "Подождите немного и попробуйте снова.");
    default:
      return errorReply(status, "Ошибка сервера", fmt::format("Сервер ответил кодом {}.", status));
  }
}

}  // namespace

std::string serverErrorBody(std::string_view title, std::string_view message) {
  return json{{"title", title}, {"message", message}}.dump();
}

std::expected<std::unique_ptr<DevBackendService>, Error> DevBackendService::create(DevBackendConfig config,
                                                                                   DeviceStore store, FaultPlan faults,
                                                                                   Clock& clock, Crypto& crypto,
                                                                                   Log& log) {
  if (config.servers.empty()) return std::unexpected(Error{"DevBackend", 0, "no servers configured"});
  bool generated = false;
  for (auto& server : config.servers) {
    if (!server.publicKey.empty()) continue;
    auto& keys = store.serverKeys();
    auto known = keys.find(server.name);
    if (known == keys.end()) {
      auto pair = generateWireGuardKeyPair();
      if (!pair) return std::unexpected(Error{"DevBackend", 0, pair.error()});
      known = keys.emplace(server.name, GeneratedServerKey{pair->privateKey, pair->publicKey}).first;
      generated = true;
    }
    server.publicKey = known->second.publicKey;
  }
  if (generated) {
    if (auto saved = store.save(); !saved) return std::unexpected(saved.error());
  }
  return std::unique_ptr<DevBackendService>(
      new DevBackendService(std::move(config), std::move(store), std::move(faults), clock, crypto, log));
}

DevBackendService::DevBackendService(DevBackendConfig config, DeviceStore store, FaultPlan faults, Clock& clock,
                                     Crypto& crypto, Log& log)
    : initial_(config),
      config_(std::move(config)),
      store_(std::move(store)),
      initialFaults_(faults),
      faults_(std::move(faults)),
      verifier_(config_.apiHmacKey, config_.aesKey, config_.signatureWindow),
      clock_(clock),
      crypto_(crypto),
      log_(log) {
  rebuildGeoIP(config_.geoIPCount);
}

std::vector<VpnServer> DevBackendService::servers() const {
  std::lock_guard lock(mutex_);
  return config_.servers;
}

Clock::TimePoint DevBackendService::serverNow() const { return clock_.now() + config_.clockOffset; }

std::int64_t DevBackendService::serverTime() const {
  return std::chrono::duration_cast<std::chrono::seconds>(serverNow().time_since_epoch()).count();
}

void DevBackendService::rebuildGeoIP(int count) {
  auto list = config_.geoIPCountry ? countryGeoIPList() : geoIPList(count);
  geoIPText_ = std::move(list.text);
  geoIPVersion_ = std::move(list.version);
}

BackendReply DevBackendService::handle(const BackendRequest& request) {
  std::lock_guard lock(mutex_);
  BackendReply reply;
  if (request.path.starts_with("/admin/")) {
    reply = handleAdmin(request);
    log_.format("[devbackend] admin {} {} status={}", request.method, request.path, reply.status);
  } else {
    RequestRecord entry;
    entry.at = serverTime();
    entry.method = request.method;
    entry.path = request.path;
    if (request.path.starts_with("/mac/") || request.path == kLinuxFeedPath) {
      reply = handleFeed(request, entry);
    } else if (request.path.starts_with(config_.apiBase)) {
      reply = handleApi(request, request.path.substr(config_.apiBase.size()), entry);
    } else {
      entry.endpoint = "-";
      entry.verdict = "-";
      reply = errorReply(404, "Не найдено", "Такого адреса нет.");
    }
    entry.status = reply.status;
    entry.delayMs = reply.delay.count();
    log_.format("[devbackend] {} {} device={} verdict={} status={}{}{}", request.method, entry.endpoint,
                entry.vendorId.empty() ? "-" : devicePrefix(entry.vendorId), entry.verdict, reply.status,
                reply.delay.count() > 0 ? fmt::format(" delay={}ms", reply.delay.count()) : std::string(),
                entry.malformed ? " malformed" : "");
    record(std::move(entry));
  }
  reply.headers.emplace_back("Date", httpDate(serverTime()));
  reply.headers.emplace_back("Cache-Control", "no-store");
  return reply;
}

void DevBackendService::record(RequestRecord entry) {
  entry.sequence = nextSequence_++;
  requests_.push_back(std::move(entry));
  if (requests_.size() > kMaxRecords) requests_.pop_front();
}

// --- The API ---

BackendReply DevBackendService::handleApi(const BackendRequest& request, const std::string& endpoint,
                                          RequestRecord& entry) {
  entry.endpoint = endpoint;
  if (!endpoints::find(endpoint)) {
    entry.verdict = "-";
    return errorReply(404, "Не найдено", fmt::format("Неизвестный метод API \"{}\".", endpoint));
  }
  if (request.method != "POST") {
    entry.verdict = "-";
    return errorReply(405, "Ошибка запроса", "Методы API принимают только POST.");
  }

  // The signature is checked for the record even when a fault answers in its place.
  const auto now = serverNow();
  const Verification verification = verifier_.check(request.headers, request.body, now);
  entry.verdict = std::string(toString(verification.verdict));
  entry.detail = verification.detail;
  entry.vendorId = verification.vendorId;

  const auto fault = faults_.takeBeforeServing(endpoint);
  BackendReply reply;
  if (fault.status) {
    reply = faultReply(*fault.status);
  } else if (verification.verdict != Verdict::ok) {
    reply = refusal(verification.verdict);
  } else {
    verifier_.markServed(verification, now);
    reply = serveEndpoint(endpoint, verification.vendorId, verification.body);
    if (reply.status == 200 && faults_.takeMalformed(endpoint)) {
      reply.body = malformedBody(endpoint, reply.body);
      entry.malformed = true;
    }
  }
  reply.delay = fault.delay;
  return reply;
}

bool DevBackendService::subscriptionActive(const Device& device) const {
  return device.subscriptionActive && device.subExpireTs > serverTime();
}

const VpnServer* DevBackendService::serverNamed(const std::string& name) const {
  for (const auto& server : config_.servers) {
    if (server.name == name) return &server;
  }
  return nullptr;
}

std::expected<void, Error> DevBackendService::persist() {
  auto saved = store_.save();
  if (!saved) log_.format("[devbackend] state not saved: {}", saved.error().message);
  return saved;
}

Device& DevBackendService::ensureDevice(const std::string& vendorId) {
  if (Device* known = store_.find(vendorId)) {
    if (!serverNamed(known->server)) known->server = config_.servers.front().name;
    return *known;
  }
  Device device;
  device.createdAt = serverTime();
  device.subscriptionActive = config_.newDevicesSubscribed;
  device.subExpireTs =
      config_.newDevicesSubscribed ? device.createdAt + config_.subscriptionLength.count() : device.createdAt;
  device.server = config_.servers.front().name;
  Device& stored = store_.insert(vendorId, std::move(device));
  log_.format("[devbackend] new device {} (subscription {})", devicePrefix(vendorId),
              stored.subscriptionActive ? "on" : "off");
  (void)persist();  // a device the file misses is made again on its next request
  return stored;
}

BackendReply DevBackendService::serveEndpoint(const std::string& endpoint, const std::string& vendorId,
                                              const json& body) {
  Device& device = ensureDevice(vendorId);
  const std::int64_t now = serverTime();

  if (endpoint == "main") {
    MainInputs in;
    in.device = &device;
    in.server = device.currentKey ? serverNamed(device.currentKey->server) : nullptr;
    in.serverTime = now;
    in.geoIPVersion = geoIPVersion_;
    in.listsVersion = serviceLists().version;
    in.smartStatus = config_.smartStatus;
    in.linkDomain = config_.linkDomain;
    in.patch = config_.mainPatch;
    return jsonReply(200, mainDocument(in));
  }
  if (endpoint == "getkey") {
    if (!subscriptionActive(device)) {
      return jsonReply(200, {{"result", 0},
                             {"success", false},
                             {"error", "subscription_inactive"},
                             {"title", "Подписка неактивна"},
                             {"message", "Продлите подписку, чтобы получить ключ."}});
    }
    return issueKey(vendorId, *serverNamed(device.server));
  }
  if (endpoint == "change_server") {
    if (!subscriptionActive(device)) {
      return errorReply(403, "Смена сервера", "Для смены сервера требуется активная подписка");
    }
    std::size_t next = 0;
    for (std::size_t i = 0; i < config_.servers.size(); ++i) {
      if (config_.servers[i].name == device.server) next = (i + 1) % config_.servers.size();
    }
    return issueKey(vendorId, config_.servers[next]);
  }
  if (endpoint == "check_app_version") {
    return jsonReply(200, config_.appUpdate.is_null() ? json::object() : json{{"update", config_.appUpdate}});
  }
  if (endpoint == "geoip") return {200, geoIPText_, "text/plain; charset=utf-8", {}, {}};
  if (endpoint == "service_lists") return jsonReply(200, serviceLists().document);
  if (endpoint == "add_push") return jsonReply(200, {{"update", "ok"}});
  if (endpoint == "st_open") return jsonReply(200, {{"store", 1}, {"link", "https://norvik.app/pay"}});
  if (endpoint == "cancel_sub_api") {
    return jsonReply(
        200, {{"result", 1},
              {"title", "Автопродление отключено"},
              {"message", fmt::format("Подписка действует до {} и не продлится.", russianDate(device.subExpireTs))}});
  }
  if (endpoint == "request_move_code") {
    auto random = crypto_.randomBytes(4);
    std::uint32_t value = 0;
    for (auto byte : random.value_or(Bytes(4, 7))) value = value << 8 | byte;
    const std::string code = fmt::format("{:06}", value % 1'000'000);
    moveCodes_[code] = MoveCode{vendorId, now + kMoveCodeLifetime};
    return jsonReply(200, {{"status", true},
                           {"expires_min", kMoveCodeLifetime / 60},
                           {"result", 1},
                           {"request", code},
                           {"title", "Код переноса"},
                           {"message", "Введите этот код на новом устройстве."}});
  }
  if (endpoint == "move_sub") return moveSubscription(vendorId, body);
  return errorReply(404, "Не найдено", fmt::format("Неизвестный метод API \"{}\".", endpoint));
}

BackendReply DevBackendService::issueKey(const std::string& vendorId, const VpnServer& server) {
  Device& device = *store_.find(vendorId);
  const auto pool = AddressPool::parse(server.addressPool);
  std::optional<std::string> address = DeviceStore::previousAddress(device, server.name);
  if (!address && pool) {
    const auto taken = store_.addressesOn(server.name);
    for (std::uint32_t i = 0; i < pool->capacity() && !address; ++i) {
      auto candidate = pool->clientAddress(i);
      if (std::ranges::find(taken, *candidate) == taken.end()) address = candidate;
    }
  }
  if (!address) return errorReply(503, "Сервер заполнен", "На сервере нет свободных адресов. Смените сервер.");

  auto pair = generateWireGuardKeyPair();
  auto preshared = crypto_.randomBytes(32);
  if (!pair || !preshared) return errorReply(500, "Ошибка сервера", "Не удалось создать ключ.");

  const Device before = device;
  std::string text = composeKeyText({pair->privateKey, *address + "/32", server.dns, server.publicKey,
                                     base64Encode(*preshared), server.allowedIPs, server.endpoint, 25});
  store_.recordKey(device, text,
                   IssuedKey{server.name, pair->publicKey, base64Encode(*preshared), *address, serverTime()});
  device.server = server.name;
  if (!persist()) {
    device = before;
    return errorReply(500, "Ошибка сервера", "Не удалось сохранить ключ. Попробуйте позже.");
  }
  log_.format("[devbackend] key for {} on {} ({}), public key {}…", devicePrefix(vendorId), server.name, *address,
              pair->publicKey.substr(0, 8));
  feedServerPeer(server, pair->publicKey, base64Encode(*preshared), *address);
  return jsonReply(200, {{"result", 1},
                         {"success", true},
                         {"keyData", std::move(text)},
                         {"keyIP", server.host()},
                         {"location", server.location},
                         {"serverName", server.name},
                         {"expiresAt", isoDate(device.subExpireTs)}});
}

void DevBackendService::feedServerPeer(const VpnServer& server, const std::string& clientPublicKey,
                                       const std::string& presharedKey, const std::string& address) {
  if (server.uapiSocket.empty()) return;
  auto keys = store_.serverKeys().find(server.name);
  if (keys == store_.serverKeys().end()) {
    log_.format("[devbackend] {}: no private key of our own to configure its device with", server.name);
    return;
  }
  auto hex = [](const std::string& base64) {
    auto bytes = base64Decode(base64);
    return bytes ? hexLower(ByteView(bytes->data(), bytes->size())) : std::string();
  };
  // The whole server identity each time, so that a device started after the backend still works.
  const std::string port = server.endpoint.substr(server.endpoint.rfind(':') + 1);
  const std::string request = fmt::format(
      "set=1\nprivate_key={}\nlisten_port={}\npublic_key={}\npreshared_key={}\n"
      "replace_allowed_ips=true\nallowed_ip={}/32\n\n",
      hex(keys->second.privateKey), port, hex(clientPublicKey), hex(presharedKey), address);
  auto answer = tunnel_helper::uapiExchange(server.uapiSocket, request, std::chrono::seconds(2));
  std::expected<void, std::string> applied =
      answer ? tunnel_helper::parseUapiSetResponse(*answer) : std::unexpected(answer.error().message);
  if (!applied) {
    log_.format("[devbackend] {}: the device at {} did not take the peer: {}", server.name, server.uapiSocket,
                applied.error());
    return;
  }
  log_.format("[devbackend] {}: peer {}… added to {}", server.name, clientPublicKey.substr(0, 8), server.uapiSocket);
}

BackendReply DevBackendService::moveSubscription(const std::string& vendorId, const json& body) {
  const std::int64_t now = serverTime();
  std::erase_if(moveCodes_, [now](const auto& entry) { return entry.second.expiresAt <= now; });
  const auto code = body.contains("code") && body["code"].is_string() ? body["code"].get<std::string>() : "";
  auto it = moveCodes_.find(code);
  if (it == moveCodes_.end() || it->second.vendorId == vendorId || !store_.find(it->second.vendorId)) {
    return jsonReply(200, {{"status", false},
                           {"type_error", "invalid_code"},
                           {"attempts_left", 2},
                           {"result", 0},
                           {"title", "Неверный код"},
                           {"message", "Проверьте код и попробуйте снова."}});
  }
  Device& from = *store_.find(it->second.vendorId);
  Device& to = *store_.find(vendorId);
  const Device fromBefore = from;
  const Device toBefore = to;
  to.subscriptionActive = from.subscriptionActive;
  to.subExpireTs = from.subExpireTs;
  from.subscriptionActive = false;
  from.subExpireTs = now;
  if (!persist()) {
    from = fromBefore;
    to = toBefore;
    return errorReply(500, "Ошибка сервера", "Не удалось перенести подписку. Попробуйте позже.");
  }
  moveCodes_.erase(it);
  return jsonReply(200, {{"status", true},
                         {"date_sub", russianDate(to.subExpireTs)},
                         {"result", 1},
                         {"title", "Подписка перенесена"},
                         {"message", "Подписка теперь на этом устройстве."}});
}

// --- The update feed ---

BackendReply DevBackendService::handleFeed(const BackendRequest& request, RequestRecord& entry) {
  entry.verdict = "unsigned";
  const auto host = findHeader(request.headers, "Host").value_or("127.0.0.1");
  const std::string origin = fmt::format("https://{}", host);
  if (request.method != "GET" && request.method != "HEAD") {
    entry.endpoint = "feed";
    return errorReply(405, "Ошибка запроса", "Только GET.");
  }

  if (request.path == kFeedPath || request.path == kLinuxFeedPath) {
    entry.endpoint = "appcast";
    const auto fault = faults_.takeBeforeServing("appcast");
    if (fault.status) {
      auto reply = faultReply(*fault.status);
      reply.delay = fault.delay;
      return reply;
    }
    const FeedRelease& feed = config_.feed;
    FeedItem item;
    item.version = feed.version;
    if (feed.enclosureURL) {
      item.enclosureURL = *feed.enclosureURL;
      item.length = feed.enclosureLength.value_or(0);
    } else {
      item.enclosureURL = origin + std::string(kDownloadsPrefix) + feed.fileName;
      item.length = feed.file ? feed.file->size() : 0;
    }
    item.edSignature = feed.edSignature;
    item.releaseNotesURL = fmt::format("{}{}{}.html", origin, kNotesPrefix, feed.version);
    item.publishedAt = entry.at;
    BackendReply reply{200, appcastXml(item), "application/xml; charset=utf-8", {}, fault.delay};
    if (faults_.takeMalformed("appcast")) {
      reply.body = malformedBody("appcast", reply.body);
      entry.malformed = true;
    }
    return reply;
  }
  if (request.path.starts_with(kDownloadsPrefix)) {
    entry.endpoint = "download";
    const auto name = request.path.substr(kDownloadsPrefix.size());
    if (!config_.feed.file || name != config_.feed.fileName) return errorReply(404, "Не найдено", "Нет такого файла.");
    return {200, {}, "application/octet-stream", {}, {}, config_.feed.file};
  }
  if (request.path.starts_with(kNotesPrefix)) {
    entry.endpoint = "release_notes";
    const auto name = request.path.substr(kNotesPrefix.size());
    if (name != config_.feed.version + ".html") return errorReply(404, "Не найдено", "Нет такой версии.");
    return {200, releaseNotesHtml(config_.feed.version), "text/html; charset=utf-8", {}, {}};
  }
  entry.endpoint = "feed";
  return errorReply(404, "Не найдено", "Такого адреса нет.");
}

}  // namespace norvik::devbackend
