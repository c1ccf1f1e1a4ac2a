#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "backend/network_service.h"
#include "backend/security_manager.h"
#include "platform/linux/openssl_crypto.h"
#include "testing/fakes.h"
#include "testing/http_fakes.h"
#include "tools/devbackend/dev_backend_service.h"

namespace norvik::devbackend::testsupport {

// The moment the client's virtual clock starts at; the backend's clock is set to agree.
inline constexpr std::int64_t kStart = 1'800'000'000;

// A wall clock the test sets by hand; safe to read from the server's threads.
class ManualClock final : public Clock {
 public:
  [[nodiscard]] TimePoint now() const override { return TimePoint(std::chrono::seconds(seconds_.load())); }
  [[nodiscard]] std::string localDay(TimePoint) const override { return "2027-01-15"; }
  void advance(std::chrono::seconds delta) { seconds_ += delta.count(); }

 private:
  std::atomic<std::int64_t> seconds_{kStart};
};

// A device as the product builds it: the real SecurityManager (identity in a fake keychain, the
// provisioned keys, OpenSSL randomness) and a NetworkService on a virtual loop.
struct Device {
  explicit Device(const Provisioning& provisioning) : security(provisioning, store, defaults, crypto, clock, log) {}

  NetworkService service(HttpTransport& transport, const std::string& apiURL) {
    NetworkServiceConfig config;
    config.location = BackendLocation::fromURL(apiURL).value();
    return NetworkService(loop, transport, security, defaults, clock, log, config);
  }

  testing::VirtualEventLoop loop;
  testing::VirtualClock clock{loop, Clock::TimePoint(std::chrono::seconds(kStart))};
  testing::FakeSecureItemStore store;
  testing::MemoryDefaults defaults;
  OpenSslCrypto crypto;
  testing::CapturingLog log;
  SecurityManager security;
};

// Hands a transport's requests straight to a DevBackendService (no TLS): the client's retries and
// time-outs run on its virtual loop. The answer's delay is only recorded.
inline void routeTo(testing::FakeHttpTransport& transport, DevBackendService& backend) {
  transport.setHandler([&backend](const HttpRequest& request) -> HttpResult {
    const auto pathStart = request.url.find('/', request.url.find("://") + 3);
    BackendRequest in{request.method, request.url.substr(pathStart), request.headers, request.body, "127.0.0.1"};
    BackendReply out = backend.handle(in);
    HttpResponse response{out.status, out.headers, out.sharedBody ? *out.sharedBody : out.body};
    response.headers.emplace_back("Content-Type", out.contentType);
    return response;
  });
}

}  // namespace norvik::devbackend::testsupport
