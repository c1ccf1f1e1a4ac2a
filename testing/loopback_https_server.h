#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/http_transport.h"
#include "testing/test_pki.h"

namespace norvik::testing {

struct ServerRequest {
  std::string method;
  std::string path;
  HttpHeaders headers;
  std::string body;
};

struct ServerReply {
  int status = 200;
  std::string body = "{}";
  std::string contentType = "application/json";
  HttpHeaders headers{};
  // Real time to wait before answering (for client time-outs).
  std::chrono::milliseconds delay{0};
};

// A real HTTPS server on 127.0.0.1 with a certificate made at start (cpp-httplib on OpenSSL).
// The handler runs on the server's threads; requests are recorded in arrival order.
class LoopbackHttpsServer {
 public:
  using Handler = std::function<ServerReply(const ServerRequest&)>;

  explicit LoopbackHttpsServer(const TestPkiOptions& pki = {});
  ~LoopbackHttpsServer();
  LoopbackHttpsServer(const LoopbackHttpsServer&) = delete;
  LoopbackHttpsServer& operator=(const LoopbackHttpsServer&) = delete;

  void setHandler(Handler handler);
  [[nodiscard]] std::vector<ServerRequest> requests() const;
  [[nodiscard]] int port() const;
  // "https://127.0.0.1:<port>" followed by `path`.
  [[nodiscard]] std::string url(std::string_view path = "/") const;
  // The PEM file of the CA that signed the server's certificate.
  [[nodiscard]] const std::filesystem::path& caFile() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace norvik::testing
