#pragma once

#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/api_error.h"
#include "backend/api_response.h"

namespace norvik {

// The answers of the endpoints other than "main". The key response spells its keys in camel
// case ("keyData", "keyIP") while the main configuration uses snake case for the same values.

// "getkey" and "change_server".
struct VPNKeyResponse {
  OptInt result;
  OptText title, message, keyData, keyIP, location, serverName, expiresAt, alertMessage;
  OptBool success;
  OptText error;
  bool operator==(const VPNKeyResponse&) const = default;
};

struct UpdateInfo {
  OptText updateType, updateTitle, updateMessage, updateMainButton, updateLaterButton, updateTextAfterButton,
      updateLink;
  OptNumber cooldownHours;
  OptText updateMode;
  OptBool inAppUpdate;
  OptText msiURL;
  bool operator==(const UpdateInfo&) const = default;
};

// "check_app_version".
struct AppVersionResponse {
  std::optional<UpdateInfo> update;
  bool operator==(const AppVersionResponse&) const = default;
};

// "st_open".
struct StoreOpenResponse {
  OptInt store;
  OptText link;
  bool operator==(const StoreOpenResponse&) const = default;
};

// "cancel_sub_api".
struct CancelServiceResponse {
  std::int64_t result = 0;  // required
  OptText title, message;
  bool operator==(const CancelServiceResponse&) const = default;
};

// "request_move_code".
struct MoveCodeResponse {
  OptBool status;
  OptInt expiresMin;
  OptText typeError;
  OptInt waitMinutes, result;
  OptText title, message, request;
  bool operator==(const MoveCodeResponse&) const = default;
};

// "move_sub".
struct TransferResponse {
  OptBool status;
  OptText dateSub, typeError;
  OptInt waitMinutes, attemptsLeft, waitSec, waitSeconds, result;
  OptText title, message, request;
  // "wait_sec" and "wait_seconds" are two names of one wait.
  [[nodiscard]] OptInt wait() const { return waitSec ? waitSec : waitSeconds; }
  bool operator==(const TransferResponse&) const = default;
};

// "add_push".
struct PushTokenResponse {
  OptText update;
  bool operator==(const PushTokenResponse&) const = default;
};

struct ActivationResponse {
  OptInt result;
  OptText link, title, message;
  bool operator==(const ActivationResponse&) const = default;
};

struct SupportChatResponse {
  OptText response;
  bool operator==(const SupportChatResponse&) const = default;
};

// "service_lists": service key to its list of CIDRs.
struct ServiceListsResponse {
  OptText version;
  std::optional<std::map<std::string, std::vector<std::string>>> services;
  bool operator==(const ServiceListsResponse&) const = default;
};

[[nodiscard]] std::expected<VPNKeyResponse, std::string> decodeVPNKeyResponse(std::string_view body);
[[nodiscard]] std::expected<AppVersionResponse, std::string> decodeAppVersionResponse(std::string_view body);
[[nodiscard]] std::expected<StoreOpenResponse, std::string> decodeStoreOpenResponse(std::string_view body);
[[nodiscard]] std::expected<CancelServiceResponse, std::string> decodeCancelServiceResponse(std::string_view body);
[[nodiscard]] std::expected<MoveCodeResponse, std::string> decodeMoveCodeResponse(std::string_view body);
[[nodiscard]] std::expected<TransferResponse, std::string> decodeTransferResponse(std::string_view body);
[[nodiscard]] std::expected<PushTokenResponse, std::string> decodePushTokenResponse(std::string_view body);
[[nodiscard]] std::expected<ActivationResponse, std::string> decodeActivationResponse(std::string_view body);
[[nodiscard]] std::expected<SupportChatResponse, std::string> decodeSupportChatResponse(std::string_view body);
[[nodiscard]] std::expected<ServiceListsResponse, std::string> decodeServiceListsResponse(std::string_view body);

// Decodes `body` as the typed answer of `endpoint` the way the product does: nothing when it
// decodes (or the endpoint has no typed answer here: "geoip" is read by the GeoIP cache), else the
// "DECODE_ERROR" the product would raise for it.
[[nodiscard]] std::optional<APIError> endpointDecodeError(std::string_view endpoint, std::string_view body);

}  // namespace norvik
