#include "platform/linux/glibc_dns_resolver.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>

#include <fmt/format.h>

namespace norvik {
namespace {

Error resolverError(DnsResolver::ErrorCode code, std::string message) {
  return Error{std::string(DnsResolver::kErrorDomain), static_cast<int>(code), std::move(message)};
}

// "a.b.c.d" or "a.b.c.d:port".
std::optional<sockaddr_in> serverAddress(const std::string& text) {
  std::string host = text;
  int port = NS_DEFAULTPORT;
  if (auto colon = text.find(':'); colon != std::string::npos) {
    host = text.substr(0, colon);
    const char* first = text.data() + colon + 1;
    const char* last = text.data() + text.size();
    auto [end, ec] = std::from_chars(first, last, port);
    if (ec != std::errc() || end != last || port <= 0 || port > 65535) return std::nullopt;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) return std::nullopt;
  return address;
}

// Owns a resolver state for one look-up.
struct ResolverState {
  struct __res_state state {};
  bool open = false;
  ResolverState() { open = res_ninit(&state) == 0; }
  ~ResolverState() {
    if (open) res_nclose(&state);
  }
};

std::vector<std::string> addressesIn(const unsigned char* answer, int length) {
  std::vector<std::string> addresses;
  ns_msg message;
  if (ns_initparse(answer, length, &message) != 0) return addresses;
  const int count = ns_msg_count(message, ns_s_an);
  for (int i = 0; i < count; ++i) {
    ns_rr record;
    if (ns_parserr(&message, ns_s_an, i, &record) != 0) break;
    if (ns_rr_type(record) != ns_t_a || ns_rr_class(record) != ns_c_in || ns_rr_rdlen(record) != 4) continue;
    char text[INET_ADDRSTRLEN] = {};
    if (inet_ntop(AF_INET, ns_rr_rdata(record), text, sizeof text)) addresses.emplace_back(text);
  }
  return addresses;
}

}  // namespace

void GlibcDnsResolver::resolve(DnsQuery query, DnsCompletion completion) {
  runBlockingThenReply(
      loop_, [query = std::move(query)] { return lookUp(query); }, std::move(completion));
}

DnsResult GlibcDnsResolver::lookUp(const DnsQuery& query) {
  std::vector<sockaddr_in> servers;
  for (const auto& text : query.servers) {
    if (servers.size() == MAXNS) break;
    if (auto address = serverAddress(text)) servers.push_back(*address);
  }
  if (servers.empty()) {
    return std::unexpected(resolverError(ErrorCode::noUsableServer, "no IPv4 resolver address among the servers"));
  }

  ResolverState resolver;
  if (!resolver.open) return std::unexpected(resolverError(ErrorCode::noAnswer, "res_ninit failed"));
  res_state state = &resolver.state;
  state->nscount = static_cast<int>(servers.size());
  for (std::size_t i = 0; i < servers.size(); ++i) state->nsaddr_list[i] = servers[i];
  // The name as given: no search list, no default domain appended.
  state->options &= ~static_cast<unsigned long>(RES_DNSRCH | RES_DEFNAMES);
  const auto perServer = query.timeout.count() / static_cast<long>(servers.size());
  state->retrans = static_cast<int>(std::max<long>(1, (perServer + 999) / 1000));
  state->retry = 1;

  std::array<unsigned char, NS_MAXMSG> answer{};
  const int length =
      res_nquery(state, query.host.c_str(), ns_c_in, ns_t_a, answer.data(), static_cast<int>(answer.size()));
  if (length < 0) {
    const int herror = state->res_h_errno;
    if (herror == HOST_NOT_FOUND || herror == NO_DATA) {
      return std::unexpected(resolverError(ErrorCode::noAddress, fmt::format("\"{}\": no such name", query.host)));
    }
    return std::unexpected(resolverError(ErrorCode::noAnswer, fmt::format("\"{}\": no resolver answered", query.host)));
  }
  auto addresses = addressesIn(answer.data(), length);
  if (addresses.empty()) {
    return std::unexpected(resolverError(ErrorCode::noAddress, fmt::format("\"{}\": no IPv4 address", query.host)));
  }
  return addresses;
}

}  // namespace norvik
