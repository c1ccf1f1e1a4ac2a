#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "backend/provisioning.h"
#include "platform/clock.h"
#include "platform/error.h"
#include "platform/log.h"
#include "tools/devbackend/dev_backend_service.h"

namespace norvik::devbackend {

// The domain of start errors caused by the options or the files they name, rather than the system.
inline constexpr std::string_view kConfigurationErrorDomain = "DevBackendConfiguration";

struct DevBackendOptions {
  // Where the devices, the generated keys and certificates live between runs. Required.
  std::filesystem::path stateDir;
  std::string listenAddress = "127.0.0.1";
  int port = 0;  // 0: an ephemeral port
  std::string apiBase = "/api/";

  // The deployment keys: this file when given, else the state directory's, made when missing.
  std::optional<std::filesystem::path> provisioningFile;
  // Also write the keys in use here (0600), for `norvik --provisioning`.
  std::optional<std::filesystem::path> writeProvisioning;
  // A certificate and key of one's own; without them a CA and certificate are made in the state
  // directory, covering 127.0.0.1, ::1, localhost and `extraNames`.
  std::optional<std::filesystem::path> certificateFile;
  std::optional<std::filesystem::path> keyFile;
  std::vector<std::string> extraNames;
  // Also write the made CA's PEM here, for `norvik --ca-file`.
  std::optional<std::filesystem::path> writeCa;

  std::optional<std::filesystem::path> serversFile;                     // else the two built-in servers
  std::vector<std::string> statusFaults, delayFaults, malformedFaults;  // FaultPlan syntax
  bool newDevicesSubscribed = true;
  nlohmann::json smartStatus = {{"enabled", false}};
  std::optional<std::string> linkDomain;
  nlohmann::json mainPatch;  // null: none
  nlohmann::json appUpdate;  // null: no update offered
  int geoIPCount = 10000;
  bool geoIPCountry = false;  // a country-sized list instead (countryGeoIPList)
  std::string feedVersion = "1.0.0";
  std::optional<std::filesystem::path> feedFile;  // the disk image offered; else a stand-in
  std::chrono::seconds clockOffset{0};

  // Tests pass their own; otherwise the system clock and a log on stderr.
  Clock* clock = nullptr;
  Log* log = nullptr;
};

// The local development backend: HTTPS on loopback (cpp-httplib on OpenSSL) in front of a
// DevBackendService. start() prepares keys, certificates and state, binds, and serves on a thread
// of its own plus the server's worker pool; the destructor stops it, cutting short any answer
// held back by an injected delay.
class DevBackend {
 public:
  [[nodiscard]] static std::expected<std::unique_ptr<DevBackend>, Error> start(DevBackendOptions options);
  ~DevBackend();
  DevBackend(const DevBackend&) = delete;
  DevBackend& operator=(const DevBackend&) = delete;

  void stop();

  [[nodiscard]] int port() const;
  // "https://<host>:<port>" followed by `path`; a wildcard listen address is shown as loopback.
  [[nodiscard]] std::string url(std::string_view path = "/") const;
  [[nodiscard]] std::string apiURL() const;
  // The CA that signed the certificate; empty for a certificate of one's own.
  [[nodiscard]] const std::filesystem::path& caFile() const;
  [[nodiscard]] const std::filesystem::path& provisioningFile() const;
  [[nodiscard]] const Provisioning& provisioning() const;
  [[nodiscard]] const std::filesystem::path& stateFile() const;
  [[nodiscard]] DevBackendService& service();

 private:
  struct Impl;
  explicit DevBackend(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace norvik::devbackend
