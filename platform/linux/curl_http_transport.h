#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>

#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/http_transport.h"

namespace norvik {

// HTTPS on libcurl. Each request runs on one of the loop's workers and completes on the loop.
// Only https is spoken; peer and host verification stay on, and an optional PEM file adds CAs
// to the system's trust store rather than replacing it. A worker keeps its curl handle, so
// connections to the same host are reused.
class CurlHttpTransport final : public HttpTransport {
 public:
  struct Options {
    std::optional<std::filesystem::path> extraCaFile;
    std::size_t maxResponseBytes = 32u << 20;
  };

  // Fails when the extra CA file cannot be read or holds no certificate.
  [[nodiscard]] static std::expected<std::unique_ptr<CurlHttpTransport>, Error> create(EventLoop& loop,
                                                                                       Options options);

  void send(HttpRequest request, HttpCompletion completion) override;

  // The blocking request itself, for callers that are already off the loop.
  [[nodiscard]] HttpResult perform(const HttpRequest& request) const;

  struct Config;

 private:
  CurlHttpTransport(EventLoop& loop, std::shared_ptr<const Config> config);

  EventLoop& loop_;
  std::shared_ptr<const Config> config_;
};

}  // namespace norvik
