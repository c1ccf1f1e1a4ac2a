#include "backend/network_service.h"

#include <nlohmann/json.hpp>

#include "platform/text.h"

namespace norvik {
namespace {

std::optional<std::string> stringField(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

}  // namespace

// One request on its way: the built request, the attempt now running (from 0), and the caller.
struct NetworkService::Exchange {
  Endpoint endpoint;
  HttpRequest request;
  int attempt = 0;
  Clock::TimePoint sentAt{};  // of the attempt in flight
  BodyCompletion completion;
  TaskHandle retry;

  void finish(BodyResult result) {
    if (completion) std::exchange(completion, nullptr)(std::move(result));
  }
};

NetworkService::NetworkService(EventLoop& loop, HttpTransport& transport, SecurityManager& security,
                               Defaults& standardDefaults, Clock& clock, Log& log, NetworkServiceConfig config)
    : loop_(loop),
      transport_(transport),
      security_(security),
      defaults_(standardDefaults),
      clock_(clock),
      log_(log),
      config_(std::move(config)),
      netProfile_(standardDefaults, log) {}

NetworkService::~NetworkService() = default;

std::expected<HttpRequest, APIError> NetworkService::buildRequest(const Endpoint& endpoint,
                                                                  const nlohmann::json& extraParams) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  // A temporary identifier would speak to the backend as somebody else: nothing is sent.
  const VendorID vendor = security_.vendorID();
  if (!vendor.trusted) return std::unexpected(api_error::keychainLocked());

  auto nonces = security_.drawRequestNonces();
  if (!nonces) return std::unexpected(api_error::encryptionFailed());
  auto encrypted = security_.encryptVendorID(vendor.identifier, nonces->sealing);
  if (!encrypted) return std::unexpected(api_error::encryptionFailed());

  std::string announced = defaults_.stringValue(kCachedMainDomainKey).value_or("");
  if (announced != urlsAnnounced_) {
    urls_.clear();
    urlsAnnounced_ = std::move(announced);
  }
  auto known = urls_.find(endpoint.name);
  if (known == urls_.end()) {
    auto url = config_.location.endpointURL(endpoint.name, urlsAnnounced_);
    if (!url) return std::unexpected(api_error::noURL());
    known = urls_.emplace(std::string(endpoint.name), std::move(*url)).first;
  }

  nlohmann::json params = extraParams.is_object() ? extraParams : nlohmann::json::object();
  params["vendor_id"] = *encrypted;
  params["version_info"] = config_.appVersion;
  // These exact bytes are the body and what is signed.
  std::string body = params.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

  auto signature = security_.signRequest(asBytes(body), nonces->signing);
  if (!signature) return std::unexpected(api_error::noHMAC());

  HttpRequest request;
  request.method = "POST";
  request.url = known->second;
  request.timeout = endpoint.timeout;
  request.headers = {
      {"Content-Type", "application/json"}, {"X-Timestamp", std::to_string(signature->timestamp)},
      {"X-Nonce", signature->nonce},        {"X-HMAC-Signature", signature->signature},
      {"User-Agent", "Norvik-macOS/1.0"},
  };
  request.body = std::move(body);
  log_.format("[Request] Enhanced HMAC request (ts: {}, nonce:{}...)", signature->timestamp,
              utf8Prefix(signature->nonce, 8));
  return request;
}

void NetworkService::send(const Endpoint& endpoint, const nlohmann::json& extraParams, BodyCompletion completion) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  auto request = buildRequest(endpoint, extraParams);
  if (!request) {
    // Failures reach the caller asynchronously too, like every other outcome.
    loop_.post([completion = std::move(completion), error = std::move(request.error())]() mutable {
      completion(std::unexpected(std::move(error)));
    });
    return;
  }
  auto exchange = std::make_shared<Exchange>();
  exchange->endpoint = endpoint;
  exchange->request = std::move(*request);
  exchange->completion = std::move(completion);
  attempt(std::move(exchange));
}

void NetworkService::attempt(std::shared_ptr<Exchange> exchange) {
  exchange->sentAt = clock_.now();
  transport_.send(exchange->request, [weak = weakFactory_.weak(), exchange](HttpResult result) mutable {
    if (auto self = weak.lock()) self->onAnswer(std::move(exchange), std::move(result));
  });
}

void NetworkService::retryLater(std::shared_ptr<Exchange> exchange) {
  ++exchange->attempt;
  auto* raw = exchange.get();
  raw->retry =
      loop_.postAfter(raw->endpoint.retryWait, [weak = weakFactory_.weak(), exchange = std::move(exchange)]() mutable {
        if (auto self = weak.lock()) self->attempt(std::move(exchange));
      });
}

void NetworkService::onAnswer(std::shared_ptr<Exchange> exchange, HttpResult result) {
  answeringAttempt_ = exchange->attempt;
  const bool attemptsRemain = exchange->attempt < exchange->endpoint.retries;
  if (responseObserver_) responseObserver_(result, ExchangeTiming{exchange->sentAt, clock_.now()});

  if (!result) {
    log_.format("Attempt {} failed: {}", exchange->attempt, result.error().message);
    if (attemptsRemain) return retryLater(std::move(exchange));
    return exchange->finish(std::unexpected(api_error::networkError(result.error())));
  }

  const HttpResponse& response = *result;

  if (response.status == 200) return exchange->finish(std::move(result->body));

  if (response.status == 503 && attemptsRemain) {
    log_.format("Server overload (503), waiting {}s before retry...", exchange->endpoint.retryWait.count());
    return retryLater(std::move(exchange));
  }

  log_.format("HTTP Status: {} on attempt {}", response.status, exchange->attempt);
  std::optional<std::string> message;
  std::optional<std::string> title;
  auto body = nlohmann::json::parse(response.body, nullptr, /*allow_exceptions=*/false);
  if (body.is_object()) {
    message = stringField(body, "message");
    title = stringField(body, "title");
  }
  exchange->finish(std::unexpected(api_error::statusError(response.status, std::move(message), std::move(title))));
}

}  // namespace norvik

namespace norvik {

void NetworkService::loadMainConfiguration(APICompletion<MainResponse> completion) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (completion) mainWaiters_.push_back(std::move(completion));
  if (isFetchingMainConfig_) return;  // this call joins the load that runs
  isFetchingMainConfig_ = true;
  isLoading_.set(true);
  send(endpoints::kMain, nlohmann::json::object(), [weak = weakFactory_.weak()](BodyResult body) {
    if (auto self = weak.lock()) self->onMainBody(std::move(body));
  });
}

void NetworkService::onMainBody(BodyResult body) {
  std::expected<MainResponse, APIError> outcome = std::unexpected(APIError{});
  if (!body) {
    outcome = std::unexpected(body.error());
  } else {
    log_.format("RAW JSON Response: {}", redactedForLog(*body));
    auto decoded = decodeAPIResponse(*body);
    if (!decoded) {
      log_.format("Main config decoding error: {}", decoded.error());
      outcome = std::unexpected(APIError{std::string(api_error::kDecodeError), "Failed to decode response"});
    } else {
      auto response = std::make_shared<const APIResponse>(std::move(*decoded));
      // The whole document is kept as it came, so that nothing the client does not model is lost.
      defaults_.setString(kCachedAPIResponseKey, std::move(*body));
      defaults_.setDouble(kCachedAPIResponseAtKey, clock_.secondsSince1970());
      saveDerivedValues(response->main);
      netProfile_.update(response->netProfile);
      hasLiveMainResponse_ = true;
      outcome = response;
    }
  }

  isFetchingMainConfig_ = false;
  isLoading_.set(false);
  if (outcome) {
    lastError_.set(std::nullopt);
    currentResponse_.set(*outcome);
  } else {
    lastError_.set(outcome.error());
  }
  auto waiters = std::exchange(mainWaiters_, {});
  for (auto& waiter : waiters) waiter(outcome);
}

void NetworkService::saveDerivedValues(const MainConfig& main) {
  if (main.mainDomain && !main.mainDomain->empty()) {
    defaults_.setString(kCachedMainDomainKey, *main.mainDomain);
    log_.format("[Domain] Main domain saved to UserDefaults: {}", *main.mainDomain);
  }
  if (main.linkSupport && !main.linkSupport->empty()) {
    defaults_.setString(kCachedSupportURLKey, *main.linkSupport);
    log_.format("[Support] Support URL saved to UserDefaults: {}", *main.linkSupport);
  }
  if (main.linkTelegram && !main.linkTelegram->empty()) {
    defaults_.setString(kCachedTelegramURLKey, *main.linkTelegram);
  }
  if (main.linkShare && !main.linkShare->empty()) {
    defaults_.setString(kCachedShareURLKey, *main.linkShare);
    log_.format("[Share] Share URL saved to UserDefaults: {}", *main.linkShare);
  }
  if (main.showCompany) {
    defaults_.setBool(kCachedShowCompanyKey, *main.showCompany);
    log_.format("[About] Show company flag saved: {}", *main.showCompany);
  }
  if (main.moveButton) {
    defaults_.setBool(kCachedMoveButtonKey, *main.moveButton);
    log_.format("[Settings] Move button flag saved: {}", *main.moveButton);
  }
}

NetworkService::MainResponse NetworkService::loadCachedMainConfiguration() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  auto text = defaults_.stringValue(kCachedAPIResponseKey);
  if (!text) return nullptr;
  auto decoded = decodeAPIResponse(*text);
  if (!decoded) {
    log_.format("Main config decoding error: {}", decoded.error());
    return nullptr;
  }
  auto response = std::make_shared<const APIResponse>(std::move(*decoded));
  currentResponse_.set(response);
  return response;
}

std::string NetworkService::shareURL() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (auto saved = defaults_.stringValue(kCachedShareURLKey); saved && !saved->empty()) return *saved;
  log_.format("[Share] Using default share URL: {}", config_.defaultShareURL);
  return config_.defaultShareURL;
}

}  // namespace norvik
