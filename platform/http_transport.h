#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace norvik {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// The value of the first header named `name` (case-insensitive), or nothing.
[[nodiscard]] std::optional<std::string_view> findHeader(const HttpHeaders& headers, std::string_view name);

struct HttpRequest {
  std::string method = "GET";
  std::string url{};
  HttpHeaders headers{};
  std::string body{};
  std::chrono::milliseconds timeout{std::chrono::seconds(60)};
  // Leave through this network interface only (the physical one under the tunnel, or the
  // tunnel's own), for probes that must not take the routing table's choice.
  std::optional<std::string> interfaceName{};
  // Fixed addresses for host names, "host:port:address" each, used instead of the system's
  // resolver (the health probes' pinned and bypass-resolved addresses).
  std::vector<std::string> pinnedAddresses{};
  // A connection of its own, neither taken from nor left to the pool of earlier requests: a probe
  // must not pass on a connection opened along another path. Implied by the two fields above.
  bool freshConnection = false;
};

struct HttpResponse {
  int status = 0;
  HttpHeaders headers{};
  std::string body{};
};

// How a request failed below HTTP. A time-out is kept apart from the rest: the user is told
// something different for it.
enum class NetworkErrorKind {
  timedOut,
  cannotConnect,
  hostNotFound,
  // TLS could not verify the server's certificate: a network that intercepts the connection, or a
  // device clock far off (`certificateOutOfDate`).
  certificate,
  other,
};

struct NetworkError {
  NetworkErrorKind kind = NetworkErrorKind::other;
  std::string message{};              // readable description
  int osCode = 0;                     // the transport library's own code
  bool certificateOutOfDate = false;  // TLS failed because the server certificate is not valid now
};

[[nodiscard]] std::string_view toString(NetworkErrorKind kind);

using HttpResult = std::expected<HttpResponse, NetworkError>;
using HttpCompletion = std::move_only_function<void(HttpResult)>;

// HTTPS requests. TLS verification is always on; an adapter may trust one extra CA besides the
// system's, it never turns verification off. Any thread may call send(); the completion runs on
// the main loop, exactly once.
class HttpTransport {
 public:
  virtual ~HttpTransport() = default;
  virtual void send(HttpRequest request, HttpCompletion completion) = 0;
};

}  // namespace norvik
