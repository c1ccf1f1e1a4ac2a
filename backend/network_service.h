#pragma once

#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "backend/api_error.h"
#include "backend/api_response.h"
#include "backend/backend_location.h"
#include "backend/endpoint_responses.h"
#include "backend/endpoints.h"
#include "backend/net_profile_store.h"
#include "backend/security_manager.h"
#include "norvik/version.h"
#include "platform/clock.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/http_transport.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

struct NetworkServiceConfig {
  BackendLocation location = BackendLocation::builtIn();
  std::string appVersion = kAppVersion;
  // The support chat's own signing pair (used by the support feature).
  std::string supportHmacSecret{};
  std::string supportHmacMessage{};
  // Shown for sharing until the backend announces its own link.
  std::string defaultShareURL = "https://norvik.app/share";
};

template <class T>
using APICompletion = std::move_only_function<void(std::expected<T, APIError>)>;

// The application's one client of its backend: builds signed JSON POST requests, sends them
// with each endpoint's time-out and retry budget, decodes the answers into their types and maps
// every failure to an APIError. It also keeps the last main configuration, in memory (published)
// and in the standard defaults, so that the next start shows it before the network answers.
//
// Threading: a main-loop object. Sends run on the transport's workers and complete on the loop;
// completions are dropped if the service is gone by then.
class NetworkService {
 public:
  using BodyResult = std::expected<std::string, APIError>;
  using BodyCompletion = std::move_only_function<void(BodyResult)>;
  using MainResponse = std::shared_ptr<const APIResponse>;

  // Standard-defaults keys of what the last main configuration left behind.
  static constexpr std::string_view kCachedAPIResponseKey = "cachedAPIResponse";
  static constexpr std::string_view kCachedAPIResponseAtKey = "cachedAPIResponseAt";
  static constexpr std::string_view kCachedMainDomainKey = "cachedMainDomain";
  static constexpr std::string_view kCachedSupportURLKey = "cachedSupportURL";
  static constexpr std::string_view kCachedTelegramURLKey = "cachedTelegramURL";
  static constexpr std::string_view kCachedShareURLKey = "cachedShareURL";
  static constexpr std::string_view kCachedShowCompanyKey = "cachedShowCompany";
  static constexpr std::string_view kCachedMoveButtonKey = "cachedMoveButton";

  NetworkService(EventLoop& loop, HttpTransport& transport, SecurityManager& security, Defaults& standardDefaults,
                 Clock& clock, Log& log, NetworkServiceConfig config = {});
  NetworkService(const NetworkService&) = delete;
  NetworkService& operator=(const NetworkService&) = delete;
  ~NetworkService();

  // --- The main configuration ---

  // Loads "main". On success the response is published as currentResponse, saved with the values
  // derived from it, and its transport profile handed on. A failure leaves all of that as it was
  // and is published as lastError. A call while a load runs joins that load.
  void loadMainConfiguration(APICompletion<MainResponse> completion = nullptr);
  // Publishes the last saved main configuration, if there is a readable one (start-up, before
  // the network answers). Returns it.
  MainResponse loadCachedMainConfiguration();

  [[nodiscard]] Published<MainResponse>& currentResponse() { return currentResponse_; }
  [[nodiscard]] Published<bool>& isLoading() { return isLoading_; }
  [[nodiscard]] Published<std::optional<APIError>>& lastError() { return lastError_; }
  [[nodiscard]] bool isFetchingMainConfig() const { return isFetchingMainConfig_; }
  [[nodiscard]] bool hasLiveMainResponse() const { return hasLiveMainResponse_; }
  [[nodiscard]] NetProfileStore& netProfile() { return netProfile_; }
  // The share link of the last main configuration, or the built-in one.
  [[nodiscard]] std::string shareURL();

  // --- The other endpoints ---

  void getKey(APICompletion<VPNKeyResponse> completion);
  void changeServer(APICompletion<VPNKeyResponse> completion);
  void checkAppVersion(APICompletion<AppVersionResponse> completion);
  // The GeoIP list's body as received (plain text, or a JSON envelope), with the attempt (from 0)
  // that brought it.
  struct GeoIPDownload {
    std::string body;
    int attempt = 0;
  };
  void fetchGeoIP(APICompletion<GeoIPDownload> completion);
  void fetchServiceLists(APICompletion<ServiceListsResponse> completion);
  void addPushToken(std::string token, APICompletion<PushTokenResponse> completion);
  void storeOpen(APICompletion<StoreOpenResponse> completion);
  void cancelSubscription(APICompletion<CancelServiceResponse> completion);
  void requestMoveCode(std::string deviceName, APICompletion<MoveCodeResponse> completion);
  void moveSubscription(std::string code, std::string deviceName, APICompletion<TransferResponse> completion);

  // --- The request path itself ---

  // The signed request for `endpoint`: encrypted identity and version, then `extraParams`.
  [[nodiscard]] std::expected<HttpRequest, APIError> buildRequest(const Endpoint& endpoint,
                                                                  const nlohmann::json& extraParams);
  // Builds and sends; `completion` gets the body of a 200 answer, or the error after the retry
  // budget is spent.
  void send(const Endpoint& endpoint, const nlohmann::json& extraParams, BodyCompletion completion);

  // When one attempt left and when its outcome came back, on the wall clock.
  struct ExchangeTiming {
    Clock::TimePoint sentAt;
    Clock::TimePoint receivedAt;
  };
  using ResponseObserver = std::function<void(const HttpResult&, const ExchangeTiming&)>;
  // Called on the loop with the outcome of every attempt, answer or network failure, and its timing:
  // the device clock check reads "Date" against the midpoint, and notices out-of-date certificates.
  void setResponseObserver(ResponseObserver observer) { responseObserver_ = std::move(observer); }

  [[nodiscard]] SecurityManager& security() { return security_; }
  [[nodiscard]] const NetworkServiceConfig& config() const { return config_; }

 private:
  struct Exchange;
  struct DecodeLabels;

  template <class T>
  void call(const Endpoint& endpoint, const nlohmann::json& params, const DecodeLabels& labels,
            std::expected<T, std::string> (*decode)(std::string_view), std::function<void(const T&)> logSuccess,
            APICompletion<T> completion);

  void attempt(std::shared_ptr<Exchange> exchange);
  void onAnswer(std::shared_ptr<Exchange> exchange, HttpResult result);
  void retryLater(std::shared_ptr<Exchange> exchange);
  void onMainBody(BodyResult body);
  void saveDerivedValues(const MainConfig& main);

  EventLoop& loop_;
  HttpTransport& transport_;
  SecurityManager& security_;
  Defaults& defaults_;
  Clock& clock_;
  Log& log_;
  NetworkServiceConfig config_;
  ResponseObserver responseObserver_;
  int answeringAttempt_ = 0;  // the attempt whose answer the completion running now receives
  // Endpoint URLs made for the announced domain they were made with. Making one parses and
  // rebuilds two URLs, a tenth of the cost of a whole signed request; the domain rarely changes.
  std::string urlsAnnounced_;
  std::map<std::string, std::string, std::less<>> urls_;
  NetProfileStore netProfile_;

  Published<MainResponse> currentResponse_;
  Published<bool> isLoading_{false};
  Published<std::optional<APIError>> lastError_;
  bool hasLiveMainResponse_ = false;
  bool isFetchingMainConfig_ = false;
  std::vector<APICompletion<MainResponse>> mainWaiters_;

  WeakPtrFactory<NetworkService> weakFactory_{this};
};

// A response body fit for a log line: the tunnel key texts ("keyData", "key_data") are replaced
// by their length, and a long body is cut.
[[nodiscard]] std::string redactedForLog(std::string_view body);

}  // namespace norvik
