#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace norvik {

// Where backend requests go. The base is the built-in host with the API path, or a URL given at
// start-up (`--backend`); endpoint names are appended to its path. The host that the last main
// configuration announced ("link_domain", as a bare host[:port] or as a URL) replaces the base's
// scheme, host and port and keeps its path. A plain "http" scheme always becomes "https".
class BackendLocation {
 public:
  static constexpr std::string_view kDefaultDomain = "api.norvik.app";
  static constexpr std::string_view kApiPath = "/api/v1/";

  static BackendLocation builtIn();
  // Fails with a readable reason when `text` is not an absolute http(s) URL with a host.
  [[nodiscard]] static std::expected<BackendLocation, std::string> fromURL(std::string_view text);

  // The URL of `endpoint`, or nothing when none can be made. An announced domain that cannot be
  // read as a host is ignored.
  [[nodiscard]] std::optional<std::string> endpointURL(std::string_view endpoint,
                                                       std::string_view announcedDomain = {}) const;
  [[nodiscard]] const std::string& baseURL() const { return base_; }

 private:
  explicit BackendLocation(std::string base) : base_(std::move(base)) {}
  std::string base_;
};

}  // namespace norvik
