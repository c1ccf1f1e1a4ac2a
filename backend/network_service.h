#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "backend/api_error.h"
#include "backend/backend_location.h"
#include "backend/endpoints.h"
#include "backend/security_manager.h"
#include "norvik/version.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/http_transport.h"
#include "platform/log.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

struct NetworkServiceConfig {
  BackendLocation location = BackendLocation::builtIn();
  std::string appVersion = kAppVersion;
  // The support chat's own signing pair (used by the support feature).
  std::string supportHmacSecret{};
  std::string supportHmacMessage{};
};

// The application's one client of its backend: builds signed JSON POST requests, sends them
// with each endpoint's time-out and retry budget, and maps every failure to an APIError.
//
// Threading: a main-loop object. Sends run on the transport's workers and complete on the loop;
// completions are dropped if the service is gone by then.
class NetworkService {
 public:
  using BodyResult = std::expected<std::string, APIError>;
  using BodyCompletion = std::move_only_function<void(BodyResult)>;

  // Defaults keys of the values kept from the last main configuration.
  static constexpr std::string_view kCachedMainDomainKey = "cachedMainDomain";

  NetworkService(EventLoop& loop, HttpTransport& transport, SecurityManager& security, Defaults& standardDefaults,
                 Log& log, NetworkServiceConfig config = {});
  NetworkService(const NetworkService&) = delete;
  NetworkService& operator=(const NetworkService&) = delete;
  ~NetworkService();

  // The signed request for `endpoint`: encrypted identity and version, then `extraParams`.
  [[nodiscard]] std::expected<HttpRequest, APIError> buildRequest(const Endpoint& endpoint,
                                                                  const nlohmann::json& extraParams);
  // Builds and sends; `completion` gets the body of a 200 answer, or the error after the retry
  // budget is spent.
  void send(const Endpoint& endpoint, const nlohmann::json& extraParams, BodyCompletion completion);

  // Called with every HTTP answer of every attempt (the device clock check reads "Date").
  void setResponseObserver(std::function<void(const HttpResponse&)> observer) { responseObserver_ = std::move(observer); }

  [[nodiscard]] SecurityManager& security() { return security_; }
  [[nodiscard]] Defaults& defaults() { return defaults_; }
  [[nodiscard]] Log& log() { return log_; }
  [[nodiscard]] EventLoop& loop() { return loop_; }
  [[nodiscard]] const NetworkServiceConfig& config() const { return config_; }

 private:
  struct Exchange;
  void attempt(std::shared_ptr<Exchange> exchange);
  void onAnswer(std::shared_ptr<Exchange> exchange, HttpResult result);
  void retryLater(std::shared_ptr<Exchange> exchange);

  EventLoop& loop_;
  HttpTransport& transport_;
  SecurityManager& security_;
  Defaults& defaults_;
  Log& log_;
  NetworkServiceConfig config_;
  std::function<void(const HttpResponse&)> responseObserver_;
  WeakPtrFactory<NetworkService> weakFactory_{this};
};

}  // namespace norvik
