#include "platform/linux/tunnel_helper_protocol.h"

#include <fmt/format.h>

namespace norvik::tunnel_helper_protocol {
namespace {

using Json = nlohmann::json;

std::string line(const Json& object) { return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"; }

std::string_view kindText(Event::Kind kind) {
  switch (kind) {
    case Event::Kind::connecting:
      return "connecting";
    case Event::Kind::connected:
      return "connected";
    case Event::Kind::telemetry:
      return "telemetry";
    case Event::Kind::failed:
      return "failed";
    case Event::Kind::stopped:
    default:
      return "stopped";
  }
}

std::optional<Event::Kind> kindNamed(std::string_view text) {
  for (auto kind : {Event::Kind::connecting, Event::Kind::connected, Event::Kind::telemetry, Event::Kind::failed,
                    Event::Kind::stopped}) {
    if (kindText(kind) == text) return kind;
  }
  return std::nullopt;
}

std::expected<Json, std::string> object(std::string_view text) {
  if (text.size() > kMaxLineBytes) return std::unexpected(fmt::format("строка длиннее {} байт", kMaxLineBytes));
  Json parsed = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return std::unexpected(fmt::format("не JSON-объект: «{}»", text.substr(0, 80)));
  return parsed;
}

template <class T>
std::optional<T> get(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  if constexpr (std::is_same_v<T, std::string>) {
    if (it->is_string()) return it->get<std::string>();
  } else if constexpr (std::is_same_v<T, std::uint64_t>) {
    if (it->is_number_unsigned()) return it->get<std::uint64_t>();
    if (it->is_number_integer() && it->get<std::int64_t>() >= 0)
      return static_cast<std::uint64_t>(it->get<std::int64_t>());
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    if (it->is_number_integer()) return it->get<std::int64_t>();
  }
  return std::nullopt;
}

}  // namespace

std::string startLine(const PropertyDictionary& providerConfiguration) {
  return line(Json{{"command", "start"}, {"configuration", toJson(providerConfiguration)}});
}

std::string telemetryRequestLine(std::uint64_t id) { return line(Json{{"command", "telemetry"}, {"id", id}}); }

std::string stopLine() { return line(Json{{"command", "stop"}}); }

std::expected<Command, std::string> parseCommand(std::string_view text) {
  auto parsed = object(text);
  if (!parsed) return std::unexpected(parsed.error());
  const std::string name = get<std::string>(*parsed, "command").value_or("");
  Command command;
  if (name == "start") {
    auto it = parsed->find("configuration");
    if (it == parsed->end() || !it->is_object()) return std::unexpected("start без configuration");
    command.kind = Command::Kind::start;
    command.configuration = std::move(*it);
    return command;
  }
  if (name == "telemetry") {
    auto id = get<std::uint64_t>(*parsed, "id");
    if (!id) return std::unexpected("telemetry без id");
    command.kind = Command::Kind::telemetry;
    command.id = *id;
    return command;
  }
  if (name == "stop") {
    command.kind = Command::Kind::stop;
    return command;
  }
  return std::unexpected(fmt::format("неизвестная команда «{}»", name.substr(0, 40)));
}

std::string eventLine(const Event& event) {
  Json out = {{"event", kindText(event.kind)}};
  if (!event.interfaceName.empty()) out["interface"] = event.interfaceName;
  if (event.kind == Event::Kind::telemetry) out["id"] = event.id;
  if (event.telemetry) {
    out["rx"] = event.telemetry->receivedBytes;
    out["tx"] = event.telemetry->sentBytes;
    if (event.telemetry->lastHandshake) {
      out["lastHandshakeNs"] =
          std::chrono::duration_cast<std::chrono::nanoseconds>(event.telemetry->lastHandshake->time_since_epoch())
              .count();
    }
  }
  if (event.error) {
    out["domain"] = event.error->domain;
    out["code"] = event.error->code;
    out["message"] = event.error->message;
  }
  return line(out);
}

std::expected<Event, std::string> parseEvent(std::string_view text) {
  auto parsed = object(text);
  if (!parsed) return std::unexpected(parsed.error());
  const std::string name = get<std::string>(*parsed, "event").value_or("");
  auto kind = kindNamed(name);
  if (!kind) return std::unexpected(fmt::format("неизвестное событие «{}»", name.substr(0, 40)));
  Event event;
  event.kind = *kind;
  event.interfaceName = get<std::string>(*parsed, "interface").value_or("");
  event.id = get<std::uint64_t>(*parsed, "id").value_or(0);
  if (auto domain = get<std::string>(*parsed, "domain")) {
    event.error = Error{*domain, static_cast<int>(get<std::int64_t>(*parsed, "code").value_or(0)),
                        get<std::string>(*parsed, "message").value_or("")};
  }
  if (event.kind == Event::Kind::failed && !event.error) return std::unexpected("failed без ошибки");
  if (event.kind == Event::Kind::telemetry && !event.error) {
    TunnelTelemetry telemetry;
    telemetry.receivedBytes = get<std::uint64_t>(*parsed, "rx").value_or(0);
    telemetry.sentBytes = get<std::uint64_t>(*parsed, "tx").value_or(0);
    if (auto ns = get<std::int64_t>(*parsed, "lastHandshakeNs")) {
      telemetry.lastHandshake =
          Clock::TimePoint(std::chrono::duration_cast<Clock::TimePoint::duration>(std::chrono::nanoseconds(*ns)));
    }
    if (!event.interfaceName.empty()) telemetry.interfaceName = event.interfaceName;
    event.telemetry = telemetry;
  }
  return event;
}

}  // namespace norvik::tunnel_helper_protocol
