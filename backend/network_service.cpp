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
  BodyCompletion completion;
  TaskHandle retry;

  void finish(BodyResult result) {
    if (completion) std::exchange(completion, nullptr)(std::move(result));
  }
};

NetworkService::NetworkService(EventLoop& loop, HttpTransport& transport, SecurityManager& security,
                               Defaults& standardDefaults, Log& log, NetworkServiceConfig config)
    : loop_(loop),
      transport_(transport),
      security_(security),
      defaults_(standardDefaults),
      log_(log),
      config_(std::move(config)) {}

NetworkService::~NetworkService() = default;

std::expected<HttpRequest, APIError> NetworkService::buildRequest(const Endpoint& endpoint,
                                                                  const nlohmann::json& extraParams) {
  // A temporary identifier would speak to the backend as somebody else: nothing is sent.
  const VendorID vendor = security_.vendorID();
  if (!vendor.trusted) return std::unexpected(api_error::keychainLocked());

  auto encrypted = security_.encryptVendorID(vendor.identifier);
  if (!encrypted) return std::unexpected(api_error::encryptionFailed());

  const std::string announced = defaults_.stringValue(kCachedMainDomainKey).value_or("");
  auto url = config_.location.endpointURL(endpoint.name, announced);
  if (!url) return std::unexpected(api_error::noURL());

  nlohmann::json params = extraParams.is_object() ? extraParams : nlohmann::json::object();
  params["vendor_id"] = *encrypted;
  params["version_info"] = config_.appVersion;
  // These exact bytes are the body and what is signed.
  std::string body = params.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

  auto signature = security_.signRequest(asBytes(body));
  if (!signature) return std::unexpected(api_error::noHMAC());

  HttpRequest request;
  request.method = "POST";
  request.url = std::move(*url);
  request.timeout = endpoint.timeout;
  request.headers = {
      {"Content-Type", "application/json"},
      {"X-Timestamp", std::to_string(signature->timestamp)},
      {"X-Nonce", signature->nonce},
      {"X-HMAC-Signature", signature->signature},
      {"User-Agent", "Norvik-macOS/1.0"},
  };
  request.body = std::move(body);
  log_.format("[Request] Enhanced HMAC request (ts: {}, nonce:{}...)", signature->timestamp,
              utf8Prefix(signature->nonce, 8));
  return request;
}

void NetworkService::send(const Endpoint& endpoint, const nlohmann::json& extraParams, BodyCompletion completion) {
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
  transport_.send(exchange->request, [weak = weakFactory_.weak(), exchange](HttpResult result) mutable {
    if (auto self = weak.lock()) self->onAnswer(std::move(exchange), std::move(result));
  });
}

void NetworkService::retryLater(std::shared_ptr<Exchange> exchange) {
  ++exchange->attempt;
  auto* raw = exchange.get();
  raw->retry = loop_.postAfter(raw->endpoint.retryWait, [weak = weakFactory_.weak(), exchange = std::move(exchange)]() mutable {
    if (auto self = weak.lock()) self->attempt(std::move(exchange));
  });
}

void NetworkService::onAnswer(std::shared_ptr<Exchange> exchange, HttpResult result) {
  const bool attemptsRemain = exchange->attempt < exchange->endpoint.retries;

  if (!result) {
    log_.format("Attempt {} failed: {}", exchange->attempt, result.error().message);
    if (attemptsRemain) return retryLater(std::move(exchange));
    return exchange->finish(std::unexpected(api_error::networkError(result.error().kind == NetworkErrorKind::timedOut)));
  }

  const HttpResponse& response = *result;
  if (responseObserver_) responseObserver_(response);

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
