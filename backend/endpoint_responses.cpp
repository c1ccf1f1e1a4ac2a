#include "backend/endpoint_responses.h"

#include "backend/endpoints.h"
#include "backend/json_fields.h"

namespace norvik {

using json_fields::decodeDocument;
using json_fields::Fields;

namespace {

VPNKeyResponse decodeKey(const Fields& f) {
  VPNKeyResponse r;
  f.integer("result", r.result);
  f.text("title", r.title);
  f.text("message", r.message);
  f.text("keyData", r.keyData);
  f.text("keyIP", r.keyIP);
  f.text("location", r.location);
  f.text("serverName", r.serverName);
  f.text("expiresAt", r.expiresAt);
  f.text("alertMessage", r.alertMessage);
  f.boolean("success", r.success);
  f.text("error", r.error);
  return r;
}

UpdateInfo decodeUpdate(const Fields& f) {
  UpdateInfo u;
  f.text("update_type", u.updateType);
  f.text("update_title", u.updateTitle);
  f.text("update_message", u.updateMessage);
  f.text("update_main_button", u.updateMainButton);
  f.text("update_later_button", u.updateLaterButton);
  f.text("update_text_after_button", u.updateTextAfterButton);
  f.text("update_link", u.updateLink);
  f.number("cooldown_hours", u.cooldownHours);
  f.text("update_mode", u.updateMode);
  f.boolean("in_app_update", u.inAppUpdate);
  f.text("msi_url", u.msiURL);
  return u;
}

AppVersionResponse decodeAppVersion(const Fields& f) {
  AppVersionResponse r;
  f.nested("update", r.update, &decodeUpdate);
  return r;
}

StoreOpenResponse decodeStoreOpen(const Fields& f) {
  StoreOpenResponse r;
  f.integer("store", r.store);
  f.text("link", r.link);
  return r;
}

CancelServiceResponse decodeCancel(const Fields& f) {
  CancelServiceResponse r;
  f.requiredInteger("result", r.result);
  f.text("title", r.title);
  f.text("message", r.message);
  return r;
}

MoveCodeResponse decodeMoveCode(const Fields& f) {
  MoveCodeResponse r;
  f.boolean("status", r.status);
  f.integer("expires_min", r.expiresMin);
  f.text("type_error", r.typeError);
  f.integer("wait_minutes", r.waitMinutes);
  f.integer("result", r.result);
  f.text("title", r.title);
  f.text("message", r.message);
  f.text("request", r.request);
  return r;
}

TransferResponse decodeTransfer(const Fields& f) {
  TransferResponse r;
  f.boolean("status", r.status);
  f.text("date_sub", r.dateSub);
  f.text("type_error", r.typeError);
  f.integer("wait_minutes", r.waitMinutes);
  f.integer("attempts_left", r.attemptsLeft);
  f.integer("wait_sec", r.waitSec);
  f.integer("wait_seconds", r.waitSeconds);
  f.integer("result", r.result);
  f.text("title", r.title);
  f.text("message", r.message);
  f.text("request", r.request);
  return r;
}

PushTokenResponse decodePushToken(const Fields& f) {
  PushTokenResponse r;
  f.text("update", r.update);
  return r;
}

ActivationResponse decodeActivation(const Fields& f) {
  ActivationResponse r;
  f.integer("result", r.result);
  f.text("link", r.link);
  f.text("title", r.title);
  f.text("message", r.message);
  return r;
}

SupportChatResponse decodeSupportChat(const Fields& f) {
  SupportChatResponse r;
  f.text("response", r.response);
  return r;
}

ServiceListsResponse decodeServiceLists(const Fields& f) {
  ServiceListsResponse r;
  f.text("version", r.version);
  f.textLists("services", r.services);
  return r;
}

}  // namespace

std::expected<VPNKeyResponse, std::string> decodeVPNKeyResponse(std::string_view body) {
  return decodeDocument(body, &decodeKey);
}
std::expected<AppVersionResponse, std::string> decodeAppVersionResponse(std::string_view body) {
  return decodeDocument(body, &decodeAppVersion);
}
std::expected<StoreOpenResponse, std::string> decodeStoreOpenResponse(std::string_view body) {
  return decodeDocument(body, &decodeStoreOpen);
}
std::expected<CancelServiceResponse, std::string> decodeCancelServiceResponse(std::string_view body) {
  return decodeDocument(body, &decodeCancel);
}
std::expected<MoveCodeResponse, std::string> decodeMoveCodeResponse(std::string_view body) {
  return decodeDocument(body, &decodeMoveCode);
}
std::expected<TransferResponse, std::string> decodeTransferResponse(std::string_view body) {
  return decodeDocument(body, &decodeTransfer);
}
std::expected<PushTokenResponse, std::string> decodePushTokenResponse(std::string_view body) {
  return decodeDocument(body, &decodePushToken);
}
std::expected<ActivationResponse, std::string> decodeActivationResponse(std::string_view body) {
  return decodeDocument(body, &decodeActivation);
}
std::expected<SupportChatResponse, std::string> decodeSupportChatResponse(std::string_view body) {
  return decodeDocument(body, &decodeSupportChat);
}
std::expected<ServiceListsResponse, std::string> decodeServiceListsResponse(std::string_view body) {
  return decodeDocument(body, &decodeServiceLists);
}

std::optional<APIError> endpointDecodeError(std::string_view endpoint, std::string_view body) {
  auto check = [](const auto& decoded) -> std::optional<APIError> {
    if (decoded) return std::nullopt;
    return api_error::decodeError(decoded.error());
  };
  if (endpoint == endpoints::kMain.name) {
    if (decodeAPIResponse(body)) return std::nullopt;
    return APIError{std::string(api_error::kDecodeError), "Failed to decode response"};
  }
  if (endpoint == endpoints::kGetKey.name || endpoint == endpoints::kChangeServer.name) {
    return check(decodeVPNKeyResponse(body));
  }
  if (endpoint == endpoints::kCheckAppVersion.name) return check(decodeAppVersionResponse(body));
  if (endpoint == endpoints::kServiceLists.name) return check(decodeServiceListsResponse(body));
  if (endpoint == endpoints::kAddPush.name) return check(decodePushTokenResponse(body));
  if (endpoint == endpoints::kStoreOpen.name) return check(decodeStoreOpenResponse(body));
  if (endpoint == endpoints::kCancelSubscription.name) return check(decodeCancelServiceResponse(body));
  if (endpoint == endpoints::kRequestMoveCode.name) return check(decodeMoveCodeResponse(body));
  if (endpoint == endpoints::kMoveSubscription.name) return check(decodeTransferResponse(body));
  return std::nullopt;
}

}  // namespace norvik
