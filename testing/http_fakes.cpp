#include "testing/http_fakes.h"

namespace norvik::testing {

void FakeHttpTransport::send(HttpRequest request, HttpCompletion completion) {
  sent_.push_back({request, loop_.now()});
  HttpResult result = handler_ ? handler_(request) : HttpResult(json(404, R"({"message":"not found"})"));
  loop_.postAfter(latency_, [completion = std::move(completion), result = std::move(result)]() mutable {
    completion(std::move(result));
  });
}

HttpResponse FakeHttpTransport::json(int status, std::string body) {
  return HttpResponse{status, {{"Content-Type", "application/json"}}, std::move(body)};
}

NetworkError FakeHttpTransport::failure(NetworkErrorKind kind, std::string message) {
  return NetworkError{kind, std::move(message), 0, false};
}

void RecordingHttpTransport::send(HttpRequest request, HttpCompletion completion) {
  {
    std::lock_guard lock(mutex_);
    sent_.push_back({request, loop_.now()});
  }
  inner_.send(std::move(request), std::move(completion));
}

std::vector<SentRequest> RecordingHttpTransport::sent() const {
  std::lock_guard lock(mutex_);
  return sent_;
}

}  // namespace norvik::testing
