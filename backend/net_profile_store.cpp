#include "backend/net_profile_store.h"

namespace norvik {
namespace {

std::string display(const nlohmann::json& value) {
  // A string that would break the one-line-per-key form is written as JSON instead.
  if (value.is_string() && value.get_ref<const std::string&>().find_first_of("\r\n") == std::string::npos) {
    return value.get<std::string>();
  }
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

NetProfileStore::NetProfileStore(Defaults& defaults, Log& log) : defaults_(defaults), log_(log) {
  if (auto stored = defaults_.stringValue(kStoredKey)) {
    auto json = nlohmann::json::parse(*stored, nullptr, /*allow_exceptions=*/false);
    if (json.is_object()) current_ = std::move(json);
  }
}

void NetProfileStore::update(const std::optional<nlohmann::json>& profile) {
  std::string access = "none";
  if (profile) {
    if (auto it = profile->find("access"); it != profile->end() && !it->is_null()) access = display(*it);
  }
  log_.format("[netProfile] access={}", access);
  if (profile == current_) return;

  log_.write("net_profile changed");
  current_ = profile;
  if (current_) {
    defaults_.setString(kStoredKey, current_->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else {
    defaults_.remove(kStoredKey);
  }
}

std::string NetProfileStore::keyValueText() const {
  std::string out;
  if (!current_) return out;
  for (const auto& [key, value] : current_->items()) {  // nlohmann keeps object keys sorted
    out += key;
    out += '=';
    out += display(value);
    out += '\n';
  }
  return out;
}

}  // namespace norvik
