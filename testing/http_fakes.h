#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "platform/event_loop.h"
#include "platform/http_transport.h"

namespace norvik::testing {

struct SentRequest {
  HttpRequest request;
  EventLoop::TimePoint at;  // loop time of the send
};

// A scripted HTTPS transport: each request is answered by the handler after `latency` of loop
// time, and completes on the loop as the real one does. Without a handler it answers 404.
class FakeHttpTransport final : public HttpTransport {
 public:
  using Handler = std::function<HttpResult(const HttpRequest&)>;

  explicit FakeHttpTransport(EventLoop& loop) : loop_(loop) {}

  void send(HttpRequest request, HttpCompletion completion) override;

  void setHandler(Handler handler) { handler_ = std::move(handler); }
  void setLatency(EventLoop::Duration latency) { latency_ = latency; }
  [[nodiscard]] const std::vector<SentRequest>& sent() const { return sent_; }

  static HttpResponse json(int status, std::string body);
  static NetworkError failure(NetworkErrorKind kind, std::string message = "scripted failure");

 private:
  EventLoop& loop_;
  Handler handler_;
  EventLoop::Duration latency_{};
  std::vector<SentRequest> sent_;
};

// Passes requests to a real transport and records when each was sent, on the loop's clock.
class RecordingHttpTransport final : public HttpTransport {
 public:
  RecordingHttpTransport(EventLoop& loop, HttpTransport& inner) : loop_(loop), inner_(inner) {}

  void send(HttpRequest request, HttpCompletion completion) override;
  [[nodiscard]] std::vector<SentRequest> sent() const;

 private:
  EventLoop& loop_;
  HttpTransport& inner_;
  mutable std::mutex mutex_;
  std::vector<SentRequest> sent_;
};

}  // namespace norvik::testing
