#include "app/main_summary.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace norvik::cli {
namespace {

std::string onOff(const OptBool& value) { return value ? (*value ? "on" : "off") : "not sent"; }
std::string number(const OptInt& value) { return value ? std::to_string(*value) : "none"; }

}  // namespace

std::string summarizeMainResponse(const APIResponse& r, std::string_view body) {
  const auto raw = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  auto where = [&](const char* key) -> std::string {
    if (!raw.is_object()) return key;
    if (raw.contains(key)) return key;
    if (raw.contains("main") && raw["main"].is_object() && raw["main"].contains(key))
      return fmt::format("{} (in main)", key);
    return key;
  };

  std::vector<std::string> sections{"main", "info"};
  if (r.faq) sections.emplace_back("faq");
  if (r.routing) sections.push_back(where("routing"));
  if (r.options) sections.emplace_back("tariffs");
  if (r.serviceUser) sections.emplace_back("service_user");
  if (r.subPanel) sections.push_back(where("sub_panel"));
  if (r.supportConfig) sections.push_back(where("support_config"));
  if (r.netProfile) sections.push_back(where("net_profile"));
  if (r.main.smartStatus) sections.emplace_back("smart_status");
  if (r.main.iosFixes) sections.emplace_back("iosFixes");

  std::string out = "--- main configuration ---\n";
  out += fmt::format("sections:     {}\n", fmt::join(sections, ", "));
  out += fmt::format("key:          {}\n",
                     r.main.keyData ? fmt::format("present, server {}", r.main.keyIP.value_or("not named")) : "none");
  out += fmt::format("account:      active {}, subscription {}, ends {}\n", onOff(r.main.isActive),
                     onOff(r.main.subActive), number(r.main.subExpireTs));
  if (r.routing) {
    const auto& routing = *r.routing;
    out += fmt::format("routing:      allowed [{}], forced {}, default {}, kill switch {}, {} services, lists {}\n",
                       routing.allowedModes ? fmt::format("{}", fmt::join(*routing.allowedModes, ", ")) : "not sent",
                       number(routing.forcedMode), number(routing.defaultMode), onOff(routing.killSwitch),
                       routing.services ? routing.services->size() : 0, routing.listsVersion.value_or("none"));
  } else {
    out += "routing:      none\n";
  }
  out += fmt::format("geoip:        version {}, bypass {}\n", r.main.geoipVersion.value_or("none"),
                     onOff(r.main.geoBypass()));
  out += fmt::format("flags:        iosFixedEnable {}, {} feature flags\n", onOff(r.main.iosFixedEnable),
                     r.main.iosFixes ? r.main.iosFixes->size() : 0);
  out += fmt::format("announced:    {}\n", r.main.mainDomain.value_or("no host"));
  return out;
}

}  // namespace norvik::cli
