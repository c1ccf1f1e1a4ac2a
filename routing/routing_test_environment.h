#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "backend/network_service.h"
#include "testing/backend_environment.h"
#include "testing/http_fakes.h"
#include "testing/temp_dir.h"

namespace norvik::testing {

// What the routing stores stand on: virtual time, a real backend client over a scripted
// transport (answers chosen by endpoint name), the group suite in memory and a real group
// container directory.
struct RoutingEnvironment : BackendEnvironment {
  using EndpointHandler = std::function<HttpResult(const HttpRequest&)>;

  RoutingEnvironment() {
    transport.setHandler([this](const HttpRequest& request) -> HttpResult {
      const std::string endpoint = request.url.substr(request.url.rfind('/') + 1);
      ++sends[endpoint];
      if (auto it = endpoints.find(endpoint); it != endpoints.end()) return it->second(request);
      return FakeHttpTransport::json(404, R"({"message":"not found"})");
    });
  }

  // Publishes a main configuration as the backend client does after a load.
  void publish(std::shared_ptr<APIResponse> response) { network.currentResponse().set(std::move(response)); }
  static std::shared_ptr<APIResponse> responseWith(RoutingConfig routing) {
    auto response = std::make_shared<APIResponse>();
    response->routing = std::move(routing);
    return response;
  }

  static HttpResult ok(std::string body) { return FakeHttpTransport::json(200, std::move(body)); }

  [[nodiscard]] std::filesystem::path geodata() const { return container.path() / "geodata"; }

  FakeHttpTransport transport{loop};
  NetworkService network{loop, transport, security, defaults, clock, log};
  MemoryDefaults group;
  TempDir container;
  std::map<std::string, EndpointHandler> endpoints;
  std::map<std::string, int> sends;
};

}  // namespace norvik::testing
