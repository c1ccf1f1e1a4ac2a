#include "tools/devbackend/device_store.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <ranges>

#include "platform/files.h"

namespace norvik::devbackend {
namespace {

using nlohmann::json;

constexpr int kFormat = 1;

// Reads one field of the state file; the error names its path and quotes the value.
class FieldReader {
 public:
  FieldReader(const json& object, std::string path) : object_(object), path_(std::move(path)) {}

  template <class T>
  std::expected<T, std::string> required(const char* key) const {
    auto it = object_.find(key);
    if (it == object_.end()) return std::unexpected(fmt::format("{}.{} is missing", path_, key));
    return typed<T>(*it, key);
  }

  template <class T>
  std::expected<std::optional<T>, std::string> optional(const char* key) const {
    auto it = object_.find(key);
    if (it == object_.end() || it->is_null()) return std::optional<T>{};
    auto value = typed<T>(*it, key);
    if (!value) return std::unexpected(value.error());
    return std::optional<T>(std::move(*value));
  }

 private:
  template <class T>
  std::expected<T, std::string> typed(const json& value, const char* key) const {
    bool ok = false;
    if constexpr (std::is_same_v<T, std::string>)
      ok = value.is_string();
    else if constexpr (std::is_same_v<T, bool>)
      ok = value.is_boolean();
    else if constexpr (std::is_same_v<T, std::int64_t>)
      ok = value.is_number_integer();
    else if constexpr (std::is_same_v<T, json>)
      ok = true;
    if (!ok) {
      std::string shown = value.dump();
      if (shown.size() > 60) shown = shown.substr(0, 60) + "…";
      return std::unexpected(fmt::format("{}.{} has the wrong type: {}", path_, key, shown));
    }
    return value.get<T>();
  }

  const json& object_;
  std::string path_;
};

json toJson(const IssuedKey& key) {
  return {{"server", key.server},
          {"public_key", key.publicKey},
          {"preshared_key", key.presharedKey},
          {"address", key.address},
          {"issued_at", key.issuedAt}};
}

std::expected<IssuedKey, std::string> issuedKeyFrom(const json& value, const std::string& path) {
  if (!value.is_object()) return std::unexpected(path + " is not an object");
  FieldReader r(value, path);
  IssuedKey key;
  const std::pair<const char*, std::string*> texts[] = {{"server", &key.server},
                                                        {"public_key", &key.publicKey},
                                                        {"preshared_key", &key.presharedKey},
                                                        {"address", &key.address}};
  for (const auto& [name, target] : texts) {
    auto text = r.required<std::string>(name);
    if (!text) return std::unexpected(text.error());
    *target = std::move(*text);
  }
  auto issuedAt = r.required<std::int64_t>("issued_at");
  if (!issuedAt) return std::unexpected(issuedAt.error());
  key.issuedAt = *issuedAt;
  return key;
}

json toJson(const Device& device) {
  json out = {{"created_at", device.createdAt},
              {"subscription_active", device.subscriptionActive},
              {"sub_expire_ts", device.subExpireTs},
              {"server", device.server}};
  if (device.keyText && device.currentKey) {
    out["key"] = toJson(*device.currentKey);
    out["key"]["key_text"] = *device.keyText;
  }
  json issued = json::array();
  for (const auto& key : device.issued) issued.push_back(toJson(key));
  out["issued"] = std::move(issued);
  return out;
}

std::expected<Device, std::string> deviceFrom(const json& value, const std::string& path) {
  if (!value.is_object()) return std::unexpected(path + " is not an object");
  FieldReader r(value, path);
  Device device;
  auto createdAt = r.required<std::int64_t>("created_at");
  if (!createdAt) return std::unexpected(createdAt.error());
  auto active = r.required<bool>("subscription_active");
  if (!active) return std::unexpected(active.error());
  auto expires = r.required<std::int64_t>("sub_expire_ts");
  if (!expires) return std::unexpected(expires.error());
  auto server = r.required<std::string>("server");
  if (!server) return std::unexpected(server.error());
  device.createdAt = *createdAt;
  device.subscriptionActive = *active;
  device.subExpireTs = *expires;
  device.server = *server;

  auto key = r.optional<json>("key");
  if (!key) return std::unexpected(key.error());
  if (*key) {
    auto issued = issuedKeyFrom(**key, path + ".key");
    if (!issued) return std::unexpected(issued.error());
    auto text = FieldReader(**key, path + ".key").required<std::string>("key_text");
    if (!text) return std::unexpected(text.error());
    device.currentKey = std::move(*issued);
    device.keyText = std::move(*text);
  }
  auto history = r.optional<json>("issued");
  if (!history) return std::unexpected(history.error());
  if (*history) {
    if (!(*history)->is_array()) return std::unexpected(path + ".issued is not an array");
    for (std::size_t i = 0; i < (*history)->size(); ++i) {
      auto issued = issuedKeyFrom((**history)[i], fmt::format("{}.issued[{}]", path, i));
      if (!issued) return std::unexpected(issued.error());
      device.issued.push_back(std::move(*issued));
    }
  }
  return device;
}

}  // namespace

std::string devicePrefix(std::string_view vendorId) { return std::string(vendorId.substr(0, 8)); }

std::expected<DeviceStore, Error> DeviceStore::open(std::filesystem::path file) {
  DeviceStore store(file);
  std::error_code ec;
  if (!std::filesystem::exists(file, ec)) return store;

  auto fail = [&](std::string what) {
    return std::unexpected(Error{"DevBackendState", 0, fmt::format("state file {}: {}", file.string(), what)});
  };
  auto text = readFile(file);
  if (!text) return fail(text.error().message);
  const json root = json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (root.is_discarded() || !root.is_object()) return fail("not a JSON object");
  if (auto format = root.find("format"); format == root.end() || *format != kFormat) {
    return fail(fmt::format("unknown format (expected \"format\": {})", kFormat));
  }

  if (auto servers = root.find("server_keys"); servers != root.end()) {
    if (!servers->is_object()) return fail("server_keys is not an object");
    for (const auto& [name, value] : servers->items()) {
      if (!value.is_object()) return fail(fmt::format("server_keys.{} is not an object", name));
      FieldReader r(value, "server_keys." + name);
      auto privateKey = r.required<std::string>("private_key");
      if (!privateKey) return fail(privateKey.error());
      auto publicKey = r.required<std::string>("public_key");
      if (!publicKey) return fail(publicKey.error());
      store.serverKeys_[name] = GeneratedServerKey{*privateKey, *publicKey};
    }
  }
  if (auto devices = root.find("devices"); devices != root.end()) {
    if (!devices->is_object()) return fail("devices is not an object");
    for (const auto& [id, value] : devices->items()) {
      auto device = deviceFrom(value, "devices." + devicePrefix(id) + "…");
      if (!device) return fail(device.error());
      store.devices_.emplace(id, std::move(*device));
    }
  }
  return store;
}

std::expected<void, Error> DeviceStore::save() const {
  json serverKeys = json::object();
  for (const auto& [name, key] : serverKeys_) {
    serverKeys[name] = {{"private_key", key.privateKey}, {"public_key", key.publicKey}};
  }
  json devices = json::object();
  for (const auto& [id, device] : devices_) devices[id] = toJson(device);
  const json root = {{"format", kFormat}, {"server_keys", serverKeys}, {"devices", devices}, {"peers", peers()}};
  if (auto made = makeDirectories(file_.parent_path(), 0700); !made) return std::unexpected(made.error());
  return writeFileAtomically(file_, root.dump(2) + "\n", 0600);
}

Device* DeviceStore::find(const std::string& vendorId) {
  auto it = devices_.find(vendorId);
  return it == devices_.end() ? nullptr : &it->second;
}

std::optional<std::string> DeviceStore::resolve(std::string_view idOrPrefix) const {
  if (auto it = devices_.find(std::string(idOrPrefix)); it != devices_.end()) return it->first;
  if (idOrPrefix.size() < 8) return std::nullopt;
  std::optional<std::string> match;
  for (const auto& [id, device] : devices_) {
    if (!id.starts_with(idOrPrefix)) continue;
    if (match) return std::nullopt;  // ambiguous
    match = id;
  }
  return match;
}

Device& DeviceStore::insert(const std::string& vendorId, Device device) {
  return devices_.insert_or_assign(vendorId, std::move(device)).first->second;
}

void DeviceStore::recordKey(Device& device, std::string keyText, IssuedKey key) {
  device.keyText = std::move(keyText);
  device.currentKey = key;
  device.issued.push_back(std::move(key));
  if (device.issued.size() > kMaxIssued) {
    device.issued.erase(device.issued.begin(), device.issued.end() - static_cast<std::ptrdiff_t>(kMaxIssued));
  }
}

std::optional<std::string> DeviceStore::previousAddress(const Device& device, const std::string& server) {
  for (const auto& issued : std::ranges::reverse_view(device.issued)) {
    if (issued.server == server) return issued.address;
  }
  return std::nullopt;
}

std::vector<std::string> DeviceStore::addressesOn(const std::string& server) const {
  std::vector<std::string> out;
  for (const auto& [id, device] : devices_) {
    for (const auto& key : device.issued) {
      if (key.server == server) out.push_back(key.address);
    }
  }
  return out;
}

json DeviceStore::peers() const {
  json out = json::object();
  for (const auto& [id, device] : devices_) {
    for (const auto& key : device.issued) {
      const bool active = device.currentKey && device.currentKey->publicKey == key.publicKey;
      out[key.server].push_back({{"public_key", key.publicKey},
                                 {"preshared_key", key.presharedKey},
                                 {"allowed_ips", key.address + "/32"},
                                 {"device", devicePrefix(id)},
                                 {"issued_at", key.issuedAt},
                                 {"active", active}});
    }
  }
  return out;
}

}  // namespace norvik::devbackend
