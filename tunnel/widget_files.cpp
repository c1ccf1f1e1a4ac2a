#include "tunnel/widget_files.h"

#include <array>
#include <chrono>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace norvik {
namespace {

using namespace std::chrono;

// The decimal number in text[at, at + width), all digits; -1 otherwise.
int digits(std::string_view text, std::size_t at, std::size_t width) {
  if (at + width > text.size()) return -1;
  int value = 0;
  for (std::size_t i = at; i < at + width; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

// A JSON value as it stands, shortened, for an error text.
std::string quote(const nlohmann::json& value) {
  std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  if (text.size() > 60) text = text.substr(0, 57) + "...";
  return text;
}

std::string_view typeName(const nlohmann::json& value) {
  return value.is_string()    ? "a string"
         : value.is_number()  ? "a number"
         : value.is_boolean() ? "a Boolean"
         : value.is_object()  ? "an object"
         : value.is_array()   ? "an array"
                              : "null";
}

}  // namespace

bool WidgetVPNState::sameContent(const WidgetVPNState& other) const {
  WidgetVPNState a = *this;
  a.updatedAt = other.updatedAt;
  return a == other;
}

std::string_view toString(WidgetCommand::Kind kind) {
  switch (kind) {
    case WidgetCommand::Kind::toggle:
      return "toggle";
    case WidgetCommand::Kind::changeServer:
      return "changeServer";
    default:
      return "toggle";
  }
}

std::string_view widgetPhase(TunnelStatus status) {
  switch (status) {
    case TunnelStatus::connected:
      return "connected";
    case TunnelStatus::connecting:
    case TunnelStatus::reasserting:
      return "connecting";
    case TunnelStatus::disconnecting:
      return "disconnecting";
    case TunnelStatus::invalid:
    case TunnelStatus::disconnected:
    default:
      return "disconnected";
  }
}

// --- Dates ---

std::string formatWidgetDate(Clock::TimePoint moment) {
  const auto ms = floor<milliseconds>(moment);
  const auto day = floor<days>(ms);
  const year_month_day date{day};
  const hh_mm_ss<milliseconds> time{ms - day};
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), time.hours().count(),
                     time.minutes().count(), time.seconds().count(), time.subseconds().count());
}

std::optional<Clock::TimePoint> parseWidgetDate(std::string_view text) {
  // "2026-11-22T10:15:30.123Z"
  //  0    5  8  11 14 17 19
  if (text.size() < 20 || text.size() > 40) return std::nullopt;
  if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') return std::nullopt;
  const int y = digits(text, 0, 4), mo = digits(text, 5, 2), d = digits(text, 8, 2);
  const int h = digits(text, 11, 2), mi = digits(text, 14, 2), s = digits(text, 17, 2);
  // Years far from today are nobody's command, and would not fit the clock's range.
  if (y < 1970 || y > 2200 || mo < 1 || d < 1 || h < 0 || h > 23 || mi < 0 || mi > 59 || s < 0 || s > 59) {
    return std::nullopt;
  }
  const year_month_day date{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
  if (!date.ok()) return std::nullopt;

  std::size_t at = 19;
  milliseconds fraction{0};
  if (at < text.size() && text[at] == '.') {
    ++at;
    const std::size_t start = at;
    int scale = 100;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
      fraction += milliseconds{(text[at] - '0') * scale};  // digits past the millisecond drop out
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }
  minutes offset{0};
  const std::string_view zone = text.substr(at);
  if (zone != "Z") {
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':') return std::nullopt;
    const int oh = digits(zone, 1, 2), om = digits(zone, 4, 2);
    if (oh < 0 || oh > 23 || om < 0 || om > 59) return std::nullopt;
    offset = hours{oh} + minutes{om};
    if (zone[0] == '-') offset = -offset;
  }
  const auto local = sys_days{date} + hours{h} + minutes{mi} + seconds{s} + fraction;
  return time_point_cast<Clock::TimePoint::duration>(local - offset);
}

// --- Files ---

std::string encodeWidgetState(const WidgetVPNState& state) {
  nlohmann::ordered_json json;
  json["phase"] = state.phase;
  if (state.connectedSince) json["connectedSince"] = formatWidgetDate(*state.connectedSince);
  json["statusText"] = state.statusText;
  json["canChangeServer"] = state.canChangeServer;
  json["canToggle"] = state.canToggle;
  json["updatedAt"] = formatWidgetDate(state.updatedAt);
  if (state.healthRaw) json["healthRaw"] = *state.healthRaw;
  if (state.appRunning) json["appRunning"] = *state.appRunning;
  if (state.trafficDown) json["trafficDown"] = *state.trafficDown;
  if (state.trafficUp) json["trafficUp"] = *state.trafficUp;
  if (state.tunnelAddress) json["tunnelAddress"] = *state.tunnelAddress;
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string encodeWidgetCommand(const WidgetCommand& command) {
  nlohmann::ordered_json json;
  json["kind"] = toString(command.kind);
  json["issuedAt"] = formatWidgetDate(command.issuedAt);
  json["id"] = command.id;
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::expected<WidgetCommand, std::string> decodeWidgetCommand(std::string_view text) {
  if (text.size() > kWidgetCommandMaxBytes) return std::unexpected(fmt::format("{} bytes is too large", text.size()));
  const nlohmann::json json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return std::unexpected("not JSON");
  if (!json.is_object()) return std::unexpected(fmt::format("expected an object, found {}", typeName(json)));

  WidgetCommand command;
  const auto kind = json.find("kind");
  if (kind == json.end()) return std::unexpected("\"kind\" is missing");
  if (*kind == "toggle") {
    command.kind = WidgetCommand::Kind::toggle;
  } else if (*kind == "changeServer") {
    command.kind = WidgetCommand::Kind::changeServer;
  } else {
    return std::unexpected(fmt::format("\"kind\" is not a known command: {}", quote(*kind)));
  }

  const auto issuedAt = json.find("issuedAt");
  if (issuedAt == json.end()) return std::unexpected("\"issuedAt\" is missing");
  std::optional<Clock::TimePoint> when;
  if (issuedAt->is_string()) when = parseWidgetDate(issuedAt->get_ref<const std::string&>());
  if (!when) return std::unexpected(fmt::format("\"issuedAt\" is not a date: {}", quote(*issuedAt)));
  command.issuedAt = *when;

  const auto id = json.find("id");
  if (id == json.end()) return std::unexpected("\"id\" is missing");
  if (!id->is_string() || id->get_ref<const std::string&>().empty() ||
      id->get_ref<const std::string&>().size() > kWidgetCommandMaxIdBytes) {
    return std::unexpected(fmt::format("\"id\" is not an identifier: {}", quote(*id)));
  }
  command.id = id->get_ref<const std::string&>();
  return command;
}

std::string formatTrafficAmount(std::uint64_t bytes) {
  static constexpr std::array<std::string_view, 5> kUnits{"Б", "КБ", "МБ", "ГБ", "ТБ"};
  if (bytes < 1024) return fmt::format("{} {}", bytes, kUnits[0]);
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < kUnits.size()) {
    value /= 1024.0;
    ++unit;
  }
  // One decimal while it says something; "10,0" would round up to a whole number anyway.
  std::string text = value < 9.95 ? fmt::format("{:.1f}", value) : fmt::format("{:.0f}", value);
  if (auto dot = text.find('.'); dot != std::string::npos) text[dot] = ',';
  if (text.ends_with(",0")) text.resize(text.size() - 2);
  return fmt::format("{} {}", text, kUnits[unit]);
}

}  // namespace norvik
