#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/dns_resolver.h"
#include "platform/event_loop.h"

namespace norvik::testing {

// Name look-ups as a test scripts them: each host answers its addresses (or its error) after
// `latency` of loop time, on the loop. Unknown hosts have no address. Queries are recorded.
class FakeDnsResolver final : public DnsResolver {
 public:
  explicit FakeDnsResolver(EventLoop& loop) : loop_(loop) {}

  void resolve(DnsQuery query, DnsCompletion completion) override {
    queries_.push_back(query);
    DnsResult result =
        std::unexpected(Error{std::string(kErrorDomain), static_cast<int>(ErrorCode::noAddress), "no such name"});
    if (auto it = answers_.find(query.host); it != answers_.end()) result = it->second;
    if (query.servers.empty()) {
      result =
          std::unexpected(Error{std::string(kErrorDomain), static_cast<int>(ErrorCode::noUsableServer), "no server"});
    }
    loop_.postAfter(latency_, [completion = std::move(completion), result = std::move(result)]() mutable {
      completion(std::move(result));
    });
  }

  void answer(std::string host, std::vector<std::string> addresses) {
    answers_[std::move(host)] = std::move(addresses);
  }
  void fail(std::string host, ErrorCode code) {
    answers_[std::move(host)] = std::unexpected(Error{std::string(kErrorDomain), static_cast<int>(code), "scripted"});
  }
  void setLatency(EventLoop::Duration latency) { latency_ = latency; }
  [[nodiscard]] const std::vector<DnsQuery>& queries() const { return queries_; }

 private:
  EventLoop& loop_;
  std::map<std::string, DnsResult, std::less<>> answers_;
  EventLoop::Duration latency_{};
  std::vector<DnsQuery> queries_;
};

}  // namespace norvik::testing
