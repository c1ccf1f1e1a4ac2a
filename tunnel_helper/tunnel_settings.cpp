#include "tunnel_helper/tunnel_settings.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"

namespace norvik::tunnel_helper {
namespace {

using Json = nlohmann::json;

const Json* field(const Json& object, std::string_view key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// A text value, or nothing when the key is absent or holds something else.
std::optional<std::string> text(const Json& object, std::string_view key) {
  const Json* value = field(object, key);
  if (!value || !value->is_string()) return std::nullopt;
  return value->get<std::string>();
}

// An integer sent either as a number or as decimal text.
std::optional<long long> integer(const Json& object, std::string_view key) {
  const Json* value = field(object, key);
  if (!value) return std::nullopt;
  if (value->is_number_integer()) return value->get<long long>();
  if (value->is_boolean()) return value->get<bool>() ? 1 : 0;
  if (value->is_string()) {
    const auto& s = value->get_ref<const std::string&>();
    long long parsed = 0;
    const auto [end, error] = std::from_chars(s.data(), s.data() + s.size(), parsed);
    if (error == std::errc() && end == s.data() + s.size()) return parsed;
  }
  return std::nullopt;
}

std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> out;
  std::size_t start = 0;
  while (start < text.size()) {
    auto end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.remove_suffix(1);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.front()))) line.remove_prefix(1);
    if (!line.empty()) out.push_back(line);
    start = end + 1;
  }
  return out;
}

bool isDomain(std::string_view name) {
  if (name.empty() || name.size() > 253 || name.find('.') == std::string_view::npos) return false;
  return std::ranges::all_of(
      name, [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_'; });
}

}  // namespace

std::string_view toString(TunnelRoutingMode mode) {
  switch (mode) {
    case TunnelRoutingMode::smart:
      return "smart";
    case TunnelRoutingMode::services:
      return "services";
    case TunnelRoutingMode::full:
      return "full";
    default:
      return "smart";
  }
}

std::expected<TunnelSettings, KeyTextError> readTunnelSettings(const nlohmann::json& configuration) {
  if (!configuration.is_object()) return std::unexpected(KeyTextError{0, "конфигурация туннеля — не словарь"});
  auto keyText = text(configuration, provider_keys::kKeyText);
  if (!keyText) return std::unexpected(KeyTextError{0, "в конфигурации туннеля нет текста ключа (wgQuickConfig)"});
  auto key = parseTunnelKey(*keyText);
  if (!key) return std::unexpected(key.error());

  TunnelSettings settings;
  settings.key = std::move(*key);

  // The snapshot sends the stored code as text; anything outside 0..2 means smart.
  if (auto code = integer(configuration, provider_keys::kGoMode); code && *code >= 0 && *code <= 2) {
    settings.mode = static_cast<TunnelRoutingMode>(*code);
  }

  if (auto cidrs = text(configuration, provider_keys::kServiceCIDRs)) {
    std::set<IpPrefix> seen;
    std::size_t bad = 0;
    for (std::string_view line : lines(*cidrs)) {
      auto prefix = IpPrefix::parse(line);
      if (!prefix) {
        if (bad++ == 0)
          settings.notes.push_back(fmt::format("routing.serviceCIDRs: пропущена строка «{}»", line.substr(0, 64)));
        continue;
      }
      if (settings.serviceCIDRs.size() >= kMaxServiceCIDRs) {
        settings.notes.push_back(fmt::format("routing.serviceCIDRs: взяты первые {} сетей", kMaxServiceCIDRs));
        break;
      }
      if (seen.insert(prefix->masked()).second) settings.serviceCIDRs.push_back(prefix->masked());
    }
    if (bad > 1) settings.notes.push_back(fmt::format("routing.serviceCIDRs: всего пропущено строк: {}", bad));
  }

  if (auto domains = text(configuration, provider_keys::kWatchDomains)) {
    for (std::string_view line : lines(*domains)) {
      std::string name(line);
      std::ranges::transform(name, name.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      if (!isDomain(name)) {
        settings.notes.push_back(fmt::format("routing.watchDomains: пропущен «{}»", line.substr(0, 64)));
        continue;
      }
      if (settings.watchDomains.size() >= kMaxWatchDomains) {
        settings.notes.push_back(fmt::format("routing.watchDomains: взяты первые {} доменов", kMaxWatchDomains));
        break;
      }
      if (std::ranges::find(settings.watchDomains, name) == settings.watchDomains.end()) {
        settings.watchDomains.push_back(std::move(name));
      }
    }
  }

  if (auto allowed = text(configuration, provider_keys::kGeoBypassAllowed)) settings.geoBypassAllowed = *allowed != "0";
  if (auto path = text(configuration, provider_keys::kGeoIPPath); path && !path->empty()) settings.geoipPath = *path;

  if (auto mtu = integer(configuration, provider_keys::kTunMTU); mtu && *mtu > 0) {
    if (*mtu >= kMinMtu && *mtu <= kMaxMtu) {
      settings.tunMTU = static_cast<int>(*mtu);
    } else {
      settings.notes.push_back(fmt::format("iosFixes.tunMTU={} вне {}…{} — не используется", *mtu, kMinMtu, kMaxMtu));
    }
  }
  if (auto disable = integer(configuration, provider_keys::kDisableIPv6)) settings.disableIPv6 = *disable > 0;
  return settings;
}

std::expected<GeoIPRanges, std::string> readGeoIPRanges(const std::filesystem::path& file) {
  // Read whole and taken apart in place: a country's list is tens of thousands of lines, and the
  // smart mode's start waits for it.
  auto text = readFile(file, 64u << 20);
  if (!text) return std::unexpected(fmt::format("не открывается {}", file.string()));
  GeoIPRanges out;
  std::string_view rest = *text;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view view = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    while (!view.empty() && std::isspace(static_cast<unsigned char>(view.back()))) view.remove_suffix(1);
    while (!view.empty() && std::isspace(static_cast<unsigned char>(view.front()))) view.remove_prefix(1);
    if (view.empty() || view.front() == '#') continue;
    auto prefix = IpPrefix::parse(view);
    // A range that covers a whole family would route everything around the tunnel.
    if (!prefix || prefix->isDefault()) {
      if (!out.firstSkipped) out.firstSkipped = std::string(view.substr(0, 64));
      ++out.skippedLines;
      continue;
    }
    if (out.ranges.size() >= kMaxGeoIPRanges) {
      ++out.skippedLines;
      continue;
    }
    out.ranges.push_back(prefix->masked());
  }
  removeRepeats(out.ranges);
  return out;
}

namespace {

// The order of IpPrefix's comparison (family, address bytes, length), with the bytes compared whole.
bool comesBefore(const IpPrefix& a, const IpPrefix& b) {
  if (a.address.family != b.address.family) return a.address.family < b.address.family;
  const int bytes = std::memcmp(a.address.bytes.data(), b.address.bytes.data(), a.address.bytes.size());
  return bytes != 0 ? bytes < 0 : a.length < b.length;
}

}  // namespace

void removeRepeats(std::vector<IpPrefix>& prefixes) {
  // A list carries each range once and, as the backend serves it, in order: one look along it
  // shows that. Only a list out of order is sorted (a copy) to look for repeats, and only a list
  // with repeats pays for dropping them in order.
  const auto outOfOrder =
      std::ranges::adjacent_find(prefixes, [](const IpPrefix& a, const IpPrefix& b) { return !comesBefore(a, b); });
  if (outOfOrder == prefixes.end()) return;
  std::vector<IpPrefix> sorted = prefixes;
  std::ranges::sort(sorted, comesBefore);
  if (std::ranges::adjacent_find(sorted) == sorted.end()) return;
  std::set<IpPrefix> seen;
  std::erase_if(prefixes, [&](const IpPrefix& p) { return !seen.insert(p).second; });
}

}  // namespace norvik::tunnel_helper
