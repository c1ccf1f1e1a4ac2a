// The admin API: what tests and developers use to steer the backend at run time. Loopback only,
// no signature.
#include <fmt/format.h>

#include "tools/devbackend/dev_backend_service.h"
#include "tools/devbackend/documents.h"

namespace norvik::devbackend {
namespace {

using nlohmann::json;

bool isLoopback(std::string_view address) {
  return address == "127.0.0.1" || address == "::1" || address == "::ffff:127.0.0.1";
}

BackendReply adminReply(int status, const json& body) {
  return {status, body.dump(2) + "\n", "application/json", {}, {}};
}
BackendReply adminError(int status, std::string message) { return adminReply(status, {{"error", std::move(message)}}); }

// The body as JSON; an empty body is an empty object.
std::optional<json> parseBody(const std::string& body) {
  if (body.find_first_not_of(" \t\r\n") == std::string::npos) return json::object();
  auto parsed = json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

}  // namespace

BackendReply DevBackendService::handleAdmin(const BackendRequest& request) {
  if (!isLoopback(request.remoteAddress)) {
    return adminError(403, fmt::format("the admin API answers only on loopback, not to {}", request.remoteAddress));
  }
  const auto body = parseBody(request.body);
  if (!body) return adminError(400, "the body is not valid JSON");
  const std::string& path = request.path;
  const std::string& method = request.method;

  if (path == "/admin/requests") {
    if (method == "GET") return adminReply(200, requestsDocument());
    if (method == "DELETE") {
      requests_.clear();
      return adminReply(200, {{"cleared", true}});
    }
  } else if (path == "/admin/faults") {
    if (method == "GET") return adminReply(200, faults_.describe());
    if (method == "POST") return setFaults(*body);
    if (method == "DELETE") {
      faults_.clear();
      return adminReply(200, faults_.describe());
    }
  } else if (path == "/admin/devices") {
    if (method == "GET") return adminReply(200, devicesDocument());
  } else if (path == "/admin/subscription") {
    if (method == "POST") return setSubscription(*body);
  } else if (path == "/admin/peers") {
    if (method == "GET") return adminReply(200, peersDocument());
  } else if (path == "/admin/main-patch") {
    if (method == "GET") return adminReply(200, config_.mainPatch);
    if (method == "POST") {
      if (!body->is_object()) return adminError(400, "the patch must be a JSON object");
      config_.mainPatch = *body;
      return adminReply(200, config_.mainPatch);
    }
    if (method == "DELETE") {
      config_.mainPatch = nullptr;
      return adminReply(200, {{"cleared", true}});
    }
  } else if (path == "/admin/geoip") {
    if (method == "POST") {
      auto count = body->find("count");
      if (count == body->end() || !count->is_number_integer() || *count < 0 || *count > kMaxGeoIPEntries) {
        return adminError(400, fmt::format("expected {{\"count\": 0…{}}}", kMaxGeoIPEntries));
      }
      config_.geoIPCount = count->get<int>();
      config_.geoIPCountry = false;
      rebuildGeoIP(config_.geoIPCount);
    }
    if (method == "POST" || method == "GET") {
      return adminReply(200, {{"count", config_.geoIPCount}, {"version", geoIPVersion_}});
    }
  } else if (path == "/admin/app-update") {
    if (method == "GET") return adminReply(200, {{"update", config_.appUpdate}});
    if (method == "POST") {
      auto update = body->find("update");
      if (update == body->end() || !(update->is_object() || update->is_null())) {
        return adminError(400, "expected {\"update\": {…}} or {\"update\": null}");
      }
      config_.appUpdate = *update;
      return adminReply(200, {{"update", config_.appUpdate}});
    }
    if (method == "DELETE") {
      config_.appUpdate = nullptr;
      return adminReply(200, {{"update", nullptr}});
    }
  } else if (path == "/admin/reset") {
    if (method == "POST") {
      resetAll();
      return adminReply(200, {{"reset", true}});
    }
  } else {
    return adminError(404, fmt::format("no admin endpoint {}", path));
  }
  return adminError(405, fmt::format("{} does not take {}", path, method));
}

BackendReply DevBackendService::setFaults(const json& body) {
  if (!body.is_object() || body.empty()) {
    return adminError(
        400,
        R"(expected {"status": "main:503:10", "delay": "getkey:20000", "malformed": "main:1"}, each a string or an array of strings)");
  }
  // Checked as a whole first, so that a bad entry changes nothing.
  FaultPlan updated = faults_;
  for (const auto& [key, value] : body.items()) {
    FaultPlan::Kind kind;
    if (key == "status")
      kind = FaultPlan::Kind::status;
    else if (key == "delay")
      kind = FaultPlan::Kind::delay;
    else if (key == "malformed")
      kind = FaultPlan::Kind::malformed;
    else
      return adminError(400, fmt::format("unknown fault kind \"{}\" (status, delay, malformed)", key));
    const json list = value.is_array() ? value : json::array({value});
    for (const auto& text : list) {
      if (!text.is_string()) return adminError(400, fmt::format("{}: expected a string, found {}", key, text.dump()));
      if (auto added = updated.add(kind, text.get<std::string>()); !added) return adminError(400, added.error());
    }
  }
  faults_ = std::move(updated);
  log_.format("[devbackend] faults: {}", faults_.describe().dump());
  return adminReply(200, faults_.describe());
}

BackendReply DevBackendService::setSubscription(const json& body) {
  auto active = body.find("active");
  if (!body.is_object() || active == body.end() || !active->is_boolean()) {
    return adminError(400, R"(expected {"active": true|false, "device": "<id or 8+ character prefix>", "days": 30})");
  }
  std::int64_t days = config_.subscriptionLength.count() / 86400;
  if (auto it = body.find("days"); it != body.end()) {
    if (!it->is_number_integer() || *it < 1 || *it > 3650) return adminError(400, "\"days\" must be 1 to 3650");
    days = it->get<std::int64_t>();
  }
  const std::int64_t now = serverTime();
  auto apply = [&](Device& device) {
    device.subscriptionActive = active->get<bool>();
    device.subExpireTs = device.subscriptionActive ? now + days * 86400 : now;
  };

  std::vector<std::string> changed;
  if (auto it = body.find("device"); it != body.end()) {
    if (!it->is_string()) return adminError(400, "\"device\" must be a string");
    auto id = store_.resolve(it->get<std::string>());
    if (!id) return adminError(404, fmt::format("no single device matches \"{}\"", it->get<std::string>()));
    apply(*store_.find(*id));
    changed.push_back(devicePrefix(*id));
  } else {
    // Without a device: every known device, and every device seen from now on.
    for (auto& [id, device] : store_.devices()) {
      apply(device);
      changed.push_back(devicePrefix(id));
    }
    config_.newDevicesSubscribed = active->get<bool>();
  }
  if (auto saved = persist(); !saved) return adminError(500, saved.error().message);
  log_.format("[devbackend] subscription {} for {} device(s)", active->get<bool>() ? "on" : "off", changed.size());
  return adminReply(200, {{"active", active->get<bool>()}, {"devices", changed}});
}

void DevBackendService::resetAll() {
  config_ = initial_;  // the server keys were filled in before the start, so they stay
  faults_ = initialFaults_;
  requests_.clear();
  moveCodes_.clear();
  verifier_.forgetNonces();
  store_.clearDevices();
  (void)persist();
  rebuildGeoIP(config_.geoIPCount);
  log_.write("[devbackend] reset: devices, faults, requests and overrides back to the start");
}

json DevBackendService::requestsDocument() const {
  json list = json::array();
  json byEndpoint = json::object();
  for (const auto& r : requests_) {
    list.push_back({{"seq", r.sequence},
                    {"at", r.at},
                    {"method", r.method},
                    {"path", r.path},
                    {"endpoint", r.endpoint},
                    {"vendor_id", r.vendorId},
                    {"device", devicePrefix(r.vendorId)},
                    {"verdict", r.verdict},
                    {"detail", r.detail},
                    {"status", r.status},
                    {"delay_ms", r.delayMs},
                    {"malformed", r.malformed}});
    json& summary = byEndpoint[r.endpoint];
    if (summary.is_null()) summary = {{"received", 0}, {"verdicts", json::object()}, {"statuses", json::object()}};
    summary["received"] = summary["received"].get<int>() + 1;
    json& verdicts = summary["verdicts"][r.verdict];
    verdicts = verdicts.is_null() ? 1 : verdicts.get<int>() + 1;
    json& statuses = summary["statuses"][std::to_string(r.status)];
    statuses = statuses.is_null() ? 1 : statuses.get<int>() + 1;
  }
  return {{"requests", std::move(list)}, {"endpoints", std::move(byEndpoint)}};
}

json DevBackendService::devicesDocument() const {
  json out = json::array();
  for (const auto& [id, device] : store_.devices()) {
    json entry = {{"vendor_id", id},
                  {"device", devicePrefix(id)},
                  {"created_at", device.createdAt},
                  {"subscription_active", subscriptionActive(device)},
                  {"sub_expire_ts", device.subExpireTs},
                  {"server", device.server},
                  {"keys_issued", device.issued.size()}};
    if (device.currentKey) {
      entry["key"] = {{"server", device.currentKey->server},
                      {"public_key", device.currentKey->publicKey},
                      {"address", device.currentKey->address},
                      {"issued_at", device.currentKey->issuedAt}};
    }
    out.push_back(std::move(entry));
  }
  return {{"devices", std::move(out)}};
}

json DevBackendService::peersDocument() const {
  const json peers = store_.peers();
  json servers = json::array();
  for (const auto& server : config_.servers) {
    auto it = peers.find(server.name);
    servers.push_back({{"name", server.name},
                       {"endpoint", server.endpoint},
                       {"public_key", server.publicKey},
                       {"address_pool", server.addressPool},
                       {"peers", it == peers.end() ? json::array() : *it}});
  }
  return {{"servers", std::move(servers)}};
}

}  // namespace norvik::devbackend
