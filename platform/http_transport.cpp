#include "platform/http_transport.h"

#include <algorithm>
#include <cctype>

namespace norvik {

std::optional<std::string_view> findHeader(const HttpHeaders& headers, std::string_view name) {
  auto same = [&](std::string_view candidate) {
    return std::ranges::equal(candidate, name, [](char a, char b) {
      return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
  };
  for (const auto& [key, value] : headers) {
    if (same(key)) return std::string_view(value);
  }
  return std::nullopt;
}

std::string_view toString(NetworkErrorKind kind) {
  switch (kind) {
    case NetworkErrorKind::timedOut:
      return "timed out";
    case NetworkErrorKind::cannotConnect:
      return "cannot connect";
    case NetworkErrorKind::hostNotFound:
      return "host not found";
    case NetworkErrorKind::certificate:
      return "certificate";
    case NetworkErrorKind::other:
      return "other";
  }
  return "other";
}

}  // namespace norvik
