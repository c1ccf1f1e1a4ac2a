#include "backend/backend_location.h"

#include <curl/curl.h>
#include <memory>

namespace norvik {
namespace {

using UrlHandle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

UrlHandle parse(std::string_view text) {
  UrlHandle url(curl_url(), &curl_url_cleanup);
  const std::string copy(text);
  if (!url || copy.find_first_of(" \t\r\n") != std::string::npos ||
      curl_url_set(url.get(), CURLUPART_URL, copy.c_str(), CURLU_DEFAULT_SCHEME) != CURLUE_OK) {
    return UrlHandle(nullptr, &curl_url_cleanup);
  }
  return url;
}

std::optional<std::string> part(CURLU* url, CURLUPart which) {
  char* value = nullptr;
  if (curl_url_get(url, which, &value, 0) != CURLUE_OK || !value) return std::nullopt;
  std::string out(value);
  curl_free(value);
  return out;
}

bool isWebScheme(const std::optional<std::string>& scheme) { return scheme == "https" || scheme == "http"; }

}  // namespace

BackendLocation BackendLocation::builtIn() {
  return BackendLocation("https://" + std::string(kDefaultDomain) + std::string(kApiPath));
}

std::expected<BackendLocation, std::string> BackendLocation::fromURL(std::string_view text) {
  if (text.find("://") == std::string_view::npos) return std::unexpected("the backend URL needs a scheme (https://…)");
  auto url = parse(text);
  if (!url) return std::unexpected("the backend URL cannot be read");
  if (!isWebScheme(part(url.get(), CURLUPART_SCHEME))) return std::unexpected("the backend URL must use https");
  auto host = part(url.get(), CURLUPART_HOST);
  if (!host || host->empty()) return std::unexpected("the backend URL has no host");
  auto whole = part(url.get(), CURLUPART_URL);
  if (!whole) return std::unexpected("the backend URL cannot be read");
  return BackendLocation(std::move(*whole));
}

std::optional<std::string> BackendLocation::endpointURL(std::string_view endpoint,
                                                        std::string_view announcedDomain) const {
  auto url = parse(base_);
  if (!url) return std::nullopt;

  if (!announcedDomain.empty()) {
    if (auto announced = parse(announcedDomain)) {
      auto scheme = part(announced.get(), CURLUPART_SCHEME);
      auto host = part(announced.get(), CURLUPART_HOST);
      if (isWebScheme(scheme) && host && !host->empty()) {
        auto port = part(announced.get(), CURLUPART_PORT);
        curl_url_set(url.get(), CURLUPART_HOST, host->c_str(), 0);
        curl_url_set(url.get(), CURLUPART_PORT, port ? port->c_str() : nullptr, 0);
      }
    }
  }
  // Requests are only ever sent over TLS.
  curl_url_set(url.get(), CURLUPART_SCHEME, "https", 0);

  std::string path = part(url.get(), CURLUPART_PATH).value_or("/");
  if (path.empty() || path.back() != '/') path.push_back('/');
  path.append(endpoint);
  if (curl_url_set(url.get(), CURLUPART_PATH, path.c_str(), 0) != CURLUE_OK) return std::nullopt;
  curl_url_set(url.get(), CURLUPART_QUERY, nullptr, 0);
  curl_url_set(url.get(), CURLUPART_FRAGMENT, nullptr, 0);
  return part(url.get(), CURLUPART_URL);
}

}  // namespace norvik
