#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/error.h"

namespace norvik::devbackend {

// One client key handed to a device, as a server peer needs it.
struct IssuedKey {
  std::string server;  // the server's name
  std::string publicKey;
  std::string presharedKey;
  std::string address;  // the device's tunnel address on that server, without prefix
  std::int64_t issuedAt = 0;
};

// What the backend knows of one device, keyed by its identifier.
struct Device {
  std::int64_t createdAt = 0;
  bool subscriptionActive = true;
  std::int64_t subExpireTs = 0;
  std::string server;  // the server the device is placed on
  // The device's current key: its full key text and where it was issued. None before "getkey".
  std::optional<std::string> keyText;
  std::optional<IssuedKey> currentKey;
  std::vector<IssuedKey> issued;  // every key handed out, oldest first, the last kMaxIssued
};

// A server whose key pair this backend made itself (no public key in the server list).
struct GeneratedServerKey {
  std::string privateKey;
  std::string publicKey;
};

// The backend's lasting state: the devices and the generated server keys, in one JSON file
// (0600, written through a temporary file and a rename). The file also carries, per server, the
// client keys issued on it ("peers"), for tests that run a real server peer; that section is
// derived and ignored when read back.
//
// Not thread-safe: its owner serialises access.
class DeviceStore {
 public:
  static constexpr std::size_t kMaxIssued = 50;

  // Reads the state file; a missing file is an empty state. A file that cannot be read is an
  // error naming the file and what is wrong, and the file is left alone.
  [[nodiscard]] static std::expected<DeviceStore, Error> open(std::filesystem::path file);

  [[nodiscard]] std::expected<void, Error> save() const;

  [[nodiscard]] Device* find(const std::string& vendorId);
  // Finds a device by its identifier or by a prefix of at least 8 characters that only it has.
  [[nodiscard]] std::optional<std::string> resolve(std::string_view idOrPrefix) const;
  Device& insert(const std::string& vendorId, Device device);
  [[nodiscard]] std::map<std::string, Device>& devices() { return devices_; }
  [[nodiscard]] const std::map<std::string, Device>& devices() const { return devices_; }
  void clearDevices() { devices_.clear(); }

  [[nodiscard]] std::map<std::string, GeneratedServerKey>& serverKeys() { return serverKeys_; }

  // Records a new current key for the device; earlier keys stay in its history.
  void recordKey(Device& device, std::string keyText, IssuedKey key);
  // The address the device had on `server` before, if any.
  [[nodiscard]] static std::optional<std::string> previousAddress(const Device& device, const std::string& server);
  // Every address handed out on `server`, to any device.
  [[nodiscard]] std::vector<std::string> addressesOn(const std::string& server) const;

  // Per server, the keys issued on it: {"<server>": [{"public_key", "preshared_key", "allowed_ips",
  // "device", "issued_at", "active"}]}. "device" is the identifier's first 8 characters; "active"
  // marks each device's current key.
  [[nodiscard]] nlohmann::json peers() const;

  [[nodiscard]] const std::filesystem::path& file() const { return file_; }

 private:
  explicit DeviceStore(std::filesystem::path file) : file_(std::move(file)) {}

  std::filesystem::path file_;
  std::map<std::string, Device> devices_;
  std::map<std::string, GeneratedServerKey> serverKeys_;
};

// The first 8 characters of an identifier: what logs and listings show of a device.
[[nodiscard]] std::string devicePrefix(std::string_view vendorId);

}  // namespace norvik::devbackend
