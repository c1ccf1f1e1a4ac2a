#include "tunnel_helper/session_preparation.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>
#include <netdb.h>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/tunnel_service.h"

namespace norvik::tunnel_helper {
namespace {

std::expected<std::vector<IpAddress>, std::string> lookUp(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = 0;  // IPv4 and IPv6 alike
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  const int status = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (status != 0) return std::unexpected(std::string(::gai_strerror(status)));
  std::vector<IpAddress> v4;
  std::vector<IpAddress> v6;
  for (const addrinfo* entry = list; entry; entry = entry->ai_next) {
    IpAddress address;
    if (entry->ai_family == AF_INET) {
      address.family = AF_INET;
      const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
      std::memcpy(address.bytes.data(), &in->sin_addr, 4);
      if (std::ranges::find(v4, address) == v4.end()) v4.push_back(address);
    } else if (entry->ai_family == AF_INET6) {
      address.family = AF_INET6;
      const auto* in6 = reinterpret_cast<const sockaddr_in6*>(entry->ai_addr);
      std::memcpy(address.bytes.data(), &in6->sin6_addr, 16);
      if (std::ranges::find(v6, address) == v6.end()) v6.push_back(address);
    }
  }
  ::freeaddrinfo(list);
  // IPv4 first: it works on more networks.
  v4.insert(v4.end(), v6.begin(), v6.end());
  if (v4.empty()) return std::unexpected(std::string("нет адресов"));
  return v4;
}

// Ranges reserved for documentation: no server is ever there, and a key that points at one (a made-up
// test key) must not send a single packet out of this machine.
bool isDocumentationAddress(const IpAddress& address) {
  static const IpPrefix ranges[] = {*IpPrefix::parse("192.0.2.0/24"), *IpPrefix::parse("198.51.100.0/24"),
                                    *IpPrefix::parse("203.0.113.0/24"), *IpPrefix::parse("2001:db8::/32")};
  return std::ranges::any_of(ranges, [&](const IpPrefix& range) { return range.contains(address); });
}

}  // namespace

HostResolver systemResolver(std::chrono::milliseconds timeout) {
  return [timeout](const std::string& host) -> std::expected<std::vector<IpAddress>, std::string> {
    if (auto literal = IpAddress::parse(host)) return std::vector<IpAddress>{*literal};
    auto promise = std::make_shared<std::promise<std::expected<std::vector<IpAddress>, std::string>>>();
    auto future = promise->get_future();
    std::thread([promise, host] { promise->set_value(lookUp(host)); }).detach();
    if (future.wait_for(timeout) != std::future_status::ready) {
      return std::unexpected(fmt::format("нет ответа за {} мс", timeout.count()));
    }
    return future.get();
  };
}

ResolvedNames resolveAll(const std::vector<std::string>& names, const HostResolver& resolve, std::size_t parallel,
                         std::chrono::milliseconds budget) {
  struct Shared {
    std::mutex mutex;
    std::deque<std::string> queue;
    ResolvedNames result;
    std::chrono::steady_clock::time_point deadline;
  };
  auto shared = std::make_shared<Shared>();
  shared->queue.assign(names.begin(), names.end());
  shared->deadline = std::chrono::steady_clock::now() + budget;
  std::vector<std::thread> workers;
  for (std::size_t i = 0; i < std::max<std::size_t>(parallel, 1) && i < names.size(); ++i) {
    workers.emplace_back([shared, resolve] {
      for (;;) {
        std::string name;
        {
          std::lock_guard lock(shared->mutex);
          if (shared->queue.empty()) return;
          if (std::chrono::steady_clock::now() >= shared->deadline) {
            shared->result.failed += shared->queue.size();
            shared->queue.clear();
            return;
          }
          name = std::move(shared->queue.front());
          shared->queue.pop_front();
        }
        auto found = resolve(name);
        std::lock_guard lock(shared->mutex);
        if (!found) {
          ++shared->result.failed;
          continue;
        }
        for (const IpAddress& address : *found) {
          if (std::ranges::find(shared->result.addresses, address) == shared->result.addresses.end()) {
            shared->result.addresses.push_back(address);
          }
        }
      }
    });
  }
  for (auto& worker : workers) worker.join();
  std::lock_guard lock(shared->mutex);
  return shared->result;
}

std::expected<Preparation, Error> prepareSession(const nlohmann::json& configuration, const HostResolver& resolve) {
  auto settings = readTunnelSettings(configuration);
  if (!settings) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid, settings.error().message));
  Preparation out;
  out.notes = settings->notes;
  for (const std::string& ignored : settings->key.ignoredKeys) {
    out.notes.push_back(
        fmt::format("ключ {} в [Interface] не используется: туннель не запускает скриптов и ведёт "
                    "свою таблицу маршрутов",
                    ignored));
  }

  std::vector<ResolvedEndpoint> endpoints;
  for (const TunnelPeer& peer : settings->key.peers) {
    auto addresses = resolve(peer.endpoint.host);
    if (!addresses || addresses->empty()) {
      return std::unexpected(
          makeNEVPNError(NEVPNErrorCode::connectionFailed,
                         fmt::format("строка {}: Endpoint «{}» не разрешается: {}", peer.line, peer.endpoint.toString(),
                                     addresses ? std::string("нет адресов") : addresses.error())));
    }
    if (isDocumentationAddress(addresses->front())) {
      return std::unexpected(
          makeNEVPNError(NEVPNErrorCode::connectionFailed,
                         fmt::format("строка {}: Endpoint «{}» — адрес из диапазона для документации, сервера там нет",
                                     peer.line, peer.endpoint.toString())));
    }
    endpoints.push_back({addresses->front(), peer.endpoint.port});
  }

  // The GeoIP list is read after the connect, with its routes (NetlinkConfigurator): a country's
  // tens of thousands of lines never delay the tunnel.
  const bool bypassByList = settings->mode == TunnelRoutingMode::smart && settings->geoBypassAllowed;
  if (bypassByList && !settings->geoipPath) {
    out.notes.emplace_back("списка GeoIP нет — умный режим ведёт всё через туннель");
  }

  std::vector<IpAddress> watchAddresses;
  if (settings->mode == TunnelRoutingMode::services && !settings->watchDomains.empty()) {
    auto resolved = resolveAll(settings->watchDomains, resolve, 16, std::chrono::seconds(5));
    watchAddresses = std::move(resolved.addresses);
    if (resolved.failed > 0) {
      out.notes.push_back(
          fmt::format("не разрешились домены: {} из {}", resolved.failed, settings->watchDomains.size()));
    }
  }

  out.session.plan = planRouting(*settings, {}, watchAddresses);
  if (bypassByList) out.session.plan.bypassList = settings->geoipPath;
  out.session.setRequest = uapiSetRequest(settings->key, endpoints, routing_constants::kFirewallMark);
  out.notes.insert(out.notes.end(), out.session.plan.notes.begin(), out.session.plan.notes.end());
  out.settings = std::move(*settings);
  return out;
}

}  // namespace norvik::tunnel_helper
