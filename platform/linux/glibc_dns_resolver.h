#pragma once

#include "platform/dns_resolver.h"
#include "platform/event_loop.h"

namespace norvik {

// Look-ups on glibc's resolver with the servers of each query in place of /etc/resolv.conf: a
// resolver state of its own per look-up (res_ninit, then the server list replaced), an A query
// with res_nquery, the answer read with ns_initparse/ns_parserr. Runs on the loop's workers.
//
// Servers are IPv4 addresses, optionally with ":port" (for tests against a local responder);
// others are skipped. glibc waits in whole seconds, so the query's time-out is spread over the
// servers and rounded up to a second each.
class GlibcDnsResolver final : public DnsResolver {
 public:
  explicit GlibcDnsResolver(EventLoop& loop) : loop_(loop) {}

  void resolve(DnsQuery query, DnsCompletion completion) override;

  // The blocking look-up itself, for callers already off the loop.
  [[nodiscard]] static DnsResult lookUp(const DnsQuery& query);

 private:
  EventLoop& loop_;
};

}  // namespace norvik
