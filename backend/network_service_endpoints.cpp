// The typed endpoint operations of NetworkService: each decodes its answer and writes the log
// lines that support engineers look for.
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "backend/network_service.h"
#include "platform/text.h"

namespace norvik {

struct NetworkService::DecodeLabels {
  std::string_view raw;    // printed before the body, when the endpoint prints it
  std::string_view error;  // printed before the decoder's error
};

namespace {

constexpr std::size_t kLoggedBodyLimit = 4096;

void redactKeys(nlohmann::json& value) {
  if (value.is_object()) {
    for (auto& [key, child] : value.items()) {
      if ((key == "keyData" || key == "key_data") && child.is_string()) {
        child = fmt::format("<{} chars>", child.get_ref<const std::string&>().size());
      } else {
        redactKeys(child);
      }
    }
  } else if (value.is_array()) {
    for (auto& child : value) redactKeys(child);
  }
}

std::string orNone(const OptInt& value) { return value ? std::to_string(*value) : "none"; }

}  // namespace

std::string redactedForLog(std::string_view body) {
  auto json = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  std::string text;
  if (json.is_discarded()) {
    // Not JSON: nothing can be singled out, so only a short, repaired prefix is shown.
    text = repairUtf8(body.substr(0, 200));
  } else {
    redactKeys(json);
    text = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
  if (text.size() > kLoggedBodyLimit) {
    text = utf8Prefix(text, kLoggedBodyLimit) + "… (" + std::to_string(body.size()) + " bytes)";
  }
  return text;
}

template <class T>
void NetworkService::call(const Endpoint& endpoint, const nlohmann::json& params, const DecodeLabels& labels,
                          std::expected<T, std::string> (*decode)(std::string_view),
                          std::function<void(const T&)> logSuccess, APICompletion<T> completion) {
  send(endpoint, params,
       [weak = weakFactory_.weak(), labels, decode, logSuccess = std::move(logSuccess),
        completion = std::move(completion)](BodyResult body) mutable {
         auto self = weak.lock();
         if (!self) return;
         if (!body) return completion(std::unexpected(std::move(body.error())));
         if (!labels.raw.empty()) self->log_.format("{}{}", labels.raw, redactedForLog(*body));
         auto decoded = decode(*body);
         if (!decoded) {
           self->log_.format("{}{}", labels.error, decoded.error());
           return completion(std::unexpected(api_error::decodeError(decoded.error())));
         }
         if (logSuccess) logSuccess(*decoded);
         completion(std::move(*decoded));
       });
}

void NetworkService::getKey(APICompletion<VPNKeyResponse> completion) {
  auto logKey = [this](const VPNKeyResponse& r) {
    log_.format("VPNKeyResponse: result={}, keyData exists: {}, keyIP exists: {}", orNone(r.result),
                r.keyData.has_value(), r.keyIP.has_value());
    if (r.error) log_.format("[GetKey] Server returned error field: {}", *r.error);
  };
  call<VPNKeyResponse>(endpoints::kGetKey, nlohmann::json::object(),
                       {"RAW JSON Response from getkey: ", "VPN key decoding error: "}, &decodeVPNKeyResponse, logKey,
                       std::move(completion));
}

void NetworkService::changeServer(APICompletion<VPNKeyResponse> completion) {
  // The same response type as "getkey", logged under the same label on purpose.
  auto logKey = [this](const VPNKeyResponse& r) {
    log_.format("VPNKeyResponse: result={}, keyData exists: {}, keyIP exists: {}", orNone(r.result),
                r.keyData.has_value(), r.keyIP.has_value());
  };
  call<VPNKeyResponse>(endpoints::kChangeServer, nlohmann::json::object(),
                       {"RAW JSON Response from getkey: ", "Change server decoding error: "}, &decodeVPNKeyResponse,
                       logKey, std::move(completion));
}

void NetworkService::checkAppVersion(APICompletion<AppVersionResponse> completion) {
  auto logVersion = [this](const AppVersionResponse& r) {
    log_.format("App version checked: {}", r.update && r.update->updateType ? *r.update->updateType : "no update");
  };
  call<AppVersionResponse>(endpoints::kCheckAppVersion, nlohmann::json::object(), {"", "App version decoding error: "},
                           &decodeAppVersionResponse, logVersion, std::move(completion));
}

void NetworkService::fetchGeoIP(APICompletion<GeoIPDownload> completion) {
  // The body is the list itself (or an envelope around it); its owner judges it.
  send(endpoints::kGeoIP, nlohmann::json::object(),
       [weak = weakFactory_.weak(), completion = std::move(completion)](BodyResult body) mutable {
         auto* self = weak.lock();
         if (!self) return;
         if (!body) return completion(std::unexpected(std::move(body.error())));
         completion(GeoIPDownload{std::move(*body), self->answeringAttempt_});
       });
}

void NetworkService::fetchServiceLists(APICompletion<ServiceListsResponse> completion) {
  call<ServiceListsResponse>(endpoints::kServiceLists, nlohmann::json::object(),
                             {"", "[ServiceLists] decoding error: "}, &decodeServiceListsResponse, nullptr,
                             std::move(completion));
}

void NetworkService::addPushToken(std::string token, APICompletion<PushTokenResponse> completion) {
  auto logPush = [this](const PushTokenResponse& r) {
    log_.format("Push token registered: {}", r.update.value_or(""));
  };
  call<PushTokenResponse>(endpoints::kAddPush, {{std::string(endpoints::kPushTokenKey), std::move(token)}},
                          {"", "Push token decoding error: "}, &decodePushTokenResponse, logPush,
                          std::move(completion));
}

void NetworkService::storeOpen(APICompletion<StoreOpenResponse> completion) {
  auto logStore = [this](const StoreOpenResponse& r) {
    log_.format("Store open fetched (store: {})", orNone(r.store));
  };
  call<StoreOpenResponse>(endpoints::kStoreOpen, nlohmann::json::object(),
                          {"RAW JSON Response from st_open: ", "Store open decoding error: "}, &decodeStoreOpenResponse,
                          logStore, std::move(completion));
}

void NetworkService::cancelSubscription(APICompletion<CancelServiceResponse> completion) {
  auto logCancel = [this](const CancelServiceResponse& r) {
    log_.format("Cancel service response: result={}", r.result);
  };
  call<CancelServiceResponse>(endpoints::kCancelSubscription, nlohmann::json::object(),
                              {"RAW JSON Response from cancel_sub_api: ", "Cancel service decoding error: "},
                              &decodeCancelServiceResponse, logCancel, std::move(completion));
}

void NetworkService::requestMoveCode(std::string deviceName, APICompletion<MoveCodeResponse> completion) {
  auto logCode = [this](const MoveCodeResponse& r) {
    if (r.status.value_or(false)) log_.format("[Transfer] Move code created, expires in {} min", orNone(r.expiresMin));
  };
  call<MoveCodeResponse>(
      endpoints::kRequestMoveCode, {{std::string(endpoints::kDeviceNameKey), std::move(deviceName)}},
      {"[Transfer] RAW JSON Response (request_move_code): ", "[Transfer] Decoding error (request_move_code): "},
      &decodeMoveCodeResponse, logCode, std::move(completion));
}

void NetworkService::moveSubscription(std::string code, std::string deviceName,
                                      APICompletion<TransferResponse> completion) {
  auto logTransfer = [this](const TransferResponse& r) {
    if (r.status.value_or(false)) {
      log_.format("[Transfer] Subscription transferred successfully, date: {}", r.dateSub.value_or(""));
    } else {
      log_.format("[Transfer] Transfer failed: {}, attempts left: {}", r.typeError.value_or(""),
                  orNone(r.attemptsLeft));
    }
  };
  call<TransferResponse>(endpoints::kMoveSubscription,
                         {{std::string(endpoints::kMoveCodeKey), std::move(code)},
                          {std::string(endpoints::kDeviceNameKey), std::move(deviceName)}},
                         {"[Transfer] RAW JSON Response (move_sub): ", "[Transfer] Decoding error (move_sub): "},
                         &decodeTransferResponse, logTransfer, std::move(completion));
}

}  // namespace norvik
