#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/tunnel_service.h"

namespace norvik {

// The two files the application and its widget exchange in the group container, and their JSON.
// Dates in both are ISO 8601 text in UTC with milliseconds, "2026-11-22T10:15:30.123Z"; a date
// without the fraction, or with another precision or a numeric UTC offset, is read too.

inline constexpr std::string_view kWidgetStateFileName = "widget-state.json";
inline constexpr std::string_view kWidgetCommandFileName = "widget-command.json";
// A command file larger than this is not a command.
inline constexpr std::size_t kWidgetCommandMaxBytes = 64 * 1024;
inline constexpr std::size_t kWidgetCommandMaxIdBytes = 200;

// What the widget shows. Written by the application; the keys keep this order in the file, and
// absent optional fields are left out.
struct WidgetVPNState {
  std::string phase;  // "disconnected", "connecting", "connected", "disconnecting"
  std::optional<Clock::TimePoint> connectedSince{};
  std::string statusText;
  bool canChangeServer = false;
  bool canToggle = false;
  Clock::TimePoint updatedAt{};
  std::optional<std::string> healthRaw{};  // "ok", "busy", "problem"
  std::optional<bool> appRunning{};
  std::optional<std::string> trafficDown{};
  std::optional<std::string> trafficUp{};
  std::optional<std::string> tunnelAddress{};

  bool operator==(const WidgetVPNState&) const = default;
  // Equal in everything the widget shows: all but `updatedAt`.
  [[nodiscard]] bool sameContent(const WidgetVPNState& other) const;
};

// A command the widget leaves for the application.
struct WidgetCommand {
  enum class Kind { toggle, changeServer };
  Kind kind = Kind::toggle;
  Clock::TimePoint issuedAt{};
  std::string id;
  bool operator==(const WidgetCommand&) const = default;
};

[[nodiscard]] std::string_view toString(WidgetCommand::Kind kind);
// The widget's phase for a tunnel status.
[[nodiscard]] std::string_view widgetPhase(TunnelStatus status);

[[nodiscard]] std::string encodeWidgetState(const WidgetVPNState& state);
[[nodiscard]] std::string encodeWidgetCommand(const WidgetCommand& command);
// Any bytes: a command, or why they are none (quoting the offending value).
[[nodiscard]] std::expected<WidgetCommand, std::string> decodeWidgetCommand(std::string_view text);

[[nodiscard]] std::string formatWidgetDate(Clock::TimePoint moment);
[[nodiscard]] std::optional<Clock::TimePoint> parseWidgetDate(std::string_view text);

// An amount of traffic as the widget shows it: "512 Б", "300 КБ", "1,2 МБ", "3,4 ГБ" (binary
// multiples, one decimal below ten, a decimal comma).
[[nodiscard]] std::string formatTrafficAmount(std::uint64_t bytes);

}  // namespace norvik
