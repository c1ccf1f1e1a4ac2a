#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <expected>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/bytes.h"
#include "platform/clock.h"
#include "platform/crypto.h"
#include "platform/error.h"
#include "platform/http_transport.h"
#include "platform/log.h"
#include "tools/devbackend/device_store.h"
#include "tools/devbackend/fault_plan.h"
#include "tools/devbackend/request_verifier.h"
#include "tools/devbackend/server_list.h"

namespace norvik::devbackend {

struct BackendRequest {
  std::string method;
  std::string path;
  HttpHeaders headers;
  std::string body;
  std::string remoteAddress;  // "127.0.0.1", "::1", …
};

struct BackendReply {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  HttpHeaders headers;
  // How long the server holds the answer back (an injected delay). The backend has already acted.
  std::chrono::milliseconds delay{0};
  // A large body shared rather than copied (a served disk image); used instead of `body` when set.
  std::shared_ptr<const std::string> sharedBody{};
};

// The release the update feed offers.
struct FeedRelease {
  std::string version = "1.0.0";
  // The disk image served under "/mac/downloads/<fileName>", unless an outside URL is given.
  std::shared_ptr<const std::string> file;
  std::string fileName;
  std::optional<std::string> enclosureURL;
  std::optional<std::uint64_t> enclosureLength;  // with an outside URL
  std::optional<std::string> edSignature;        // Base64 Ed25519 over the file
};

struct DevBackendConfig {
  std::string apiBase = "/api/";
  Bytes apiHmacKey;
  Bytes aesKey;
  std::vector<VpnServer> servers;  // public keys missing here are generated and kept in the state
  bool newDevicesSubscribed = true;
  std::chrono::seconds subscriptionLength = std::chrono::days(30);
  nlohmann::json smartStatus = {{"enabled", false}};
  std::optional<std::string> linkDomain;
  nlohmann::json mainPatch;  // JSON merge patch over every main document; null: none
  nlohmann::json appUpdate;  // the "update" object of check_app_version; null: no update
  int geoIPCount = 10000;
  bool geoIPCountry = false;  // serve countryGeoIPList() instead of geoIPCount ranges
  FeedRelease feed;
  // This server's clock against the real one: moves "server_time", "Date" and the signature window.
  std::chrono::seconds clockOffset{0};
  std::chrono::seconds signatureWindow = std::chrono::minutes(5);
};

// The backend itself, without the HTTP server: one request in, one reply out. Serves the API
// under `apiBase` (signed POSTs), the update feed under "/mac/", and the loopback-only admin API
// under "/admin/". Logs one line per request (endpoint, the device's first 8 characters, verdict,
// status) and never a key.
//
// Threading: handle() may be called from any thread; one mutex serialises all state. Owns the
// device store; the clock, the random source and the log must outlive it.
class DevBackendService {
 public:
  // Fills in the server keys the list leaves out (generated once, kept in the store).
  [[nodiscard]] static std::expected<std::unique_ptr<DevBackendService>, Error> create(DevBackendConfig config,
                                                                                       DeviceStore store,
                                                                                       FaultPlan faults, Clock& clock,
                                                                                       Crypto& crypto, Log& log);

  [[nodiscard]] BackendReply handle(const BackendRequest& request);

  // The servers with their public keys, as served.
  [[nodiscard]] std::vector<VpnServer> servers() const;

 private:
  struct RequestRecord {
    std::uint64_t sequence = 0;
    std::int64_t at = 0;
    std::string method, path, endpoint, vendorId, verdict, detail;
    int status = 0;
    std::int64_t delayMs = 0;
    bool malformed = false;
  };
  struct MoveCode {
    std::string vendorId;
    std::int64_t expiresAt = 0;
  };

  DevBackendService(DevBackendConfig config, DeviceStore store, FaultPlan faults, Clock& clock, Crypto& crypto,
                    Log& log);

  [[nodiscard]] std::int64_t serverTime() const;
  [[nodiscard]] Clock::TimePoint serverNow() const;

  // API (dev_backend_service.cpp)
  BackendReply handleApi(const BackendRequest& request, const std::string& endpoint, RequestRecord& entry);
  BackendReply serveEndpoint(const std::string& endpoint, const std::string& vendorId, const nlohmann::json& body);
  Device& ensureDevice(const std::string& vendorId);
  BackendReply issueKey(const std::string& vendorId, const VpnServer& server);
  // Adds an issued key as a peer of the server's own WireGuard device, when it has one.
  void feedServerPeer(const VpnServer& server, const std::string& clientPublicKey, const std::string& presharedKey,
                      const std::string& address);
  BackendReply moveSubscription(const std::string& vendorId, const nlohmann::json& body);
  [[nodiscard]] const VpnServer* serverNamed(const std::string& name) const;
  [[nodiscard]] bool subscriptionActive(const Device& device) const;
  std::expected<void, Error> persist();

  // The update feed (dev_backend_service.cpp)
  BackendReply handleFeed(const BackendRequest& request, RequestRecord& entry);

  // Admin (dev_backend_admin.cpp)
  BackendReply handleAdmin(const BackendRequest& request);
  [[nodiscard]] nlohmann::json requestsDocument() const;
  [[nodiscard]] nlohmann::json devicesDocument() const;
  [[nodiscard]] nlohmann::json peersDocument() const;
  BackendReply setFaults(const nlohmann::json& body);
  BackendReply setSubscription(const nlohmann::json& body);
  void resetAll();
  void rebuildGeoIP(int count);

  void record(RequestRecord entry);

  mutable std::mutex mutex_;
  const DevBackendConfig initial_;  // what a reset returns to
  DevBackendConfig config_;
  DeviceStore store_;
  FaultPlan initialFaults_;
  FaultPlan faults_;
  RequestVerifier verifier_;
  Clock& clock_;
  Crypto& crypto_;
  Log& log_;
  std::string geoIPText_;
  std::string geoIPVersion_;
  std::deque<RequestRecord> requests_;
  std::uint64_t nextSequence_ = 1;
  std::map<std::string, MoveCode> moveCodes_;
};

// {"title": …, "message": …}: the error body the client reads from a non-success answer.
[[nodiscard]] std::string serverErrorBody(std::string_view title, std::string_view message);

}  // namespace norvik::devbackend
