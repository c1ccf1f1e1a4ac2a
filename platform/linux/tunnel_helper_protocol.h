#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "platform/error.h"
#include "platform/property_list.h"
#include "platform/tunnel_service.h"

// What the application and the Linux tunnel helper (norvik-tunnel) say to each other: one JSON
// object a line. The application writes commands to the helper's standard input — the provider
// configuration first, which holds the private key and so never appears on a command line — and
// the helper answers with events on its standard output. The helper's standard error carries log
// lines. When the application's end of standard input closes, the helper stops the tunnel.
namespace norvik::tunnel_helper_protocol {

// The tunnel program's identity, as the provider configuration names it.
inline constexpr std::string_view kProviderBundleIdentifier = "com.norvik.macos.tunnel";
// Longest line either side accepts; a provider configuration with its extras fits many times over.
inline constexpr std::size_t kMaxLineBytes = 8u << 20;

struct Command {  // NOLINT(bugprone-exception-escape): nlohmann::json moves without throwing; the check cannot see it
  enum class Kind { start, telemetry, stop };
  Kind kind = Kind::stop;
  nlohmann::json configuration{};  // start: the provider configuration
  std::uint64_t id = 0;            // telemetry: echoed in the answer
};

[[nodiscard]] std::string startLine(const PropertyDictionary& providerConfiguration);
[[nodiscard]] std::string telemetryRequestLine(std::uint64_t id);
[[nodiscard]] std::string stopLine();
[[nodiscard]] std::expected<Command, std::string> parseCommand(std::string_view text);

struct Event {
  enum class Kind { connecting, connected, telemetry, failed, stopped };
  Kind kind = Kind::stopped;
  std::string interfaceName{};                 // connecting, connected, telemetry
  std::uint64_t id = 0;                        // telemetry
  std::optional<TunnelTelemetry> telemetry{};  // telemetry, when it could be read
  std::optional<Error> error{};                // failed; telemetry that could not be read
};

// Each line ends with "\n".
[[nodiscard]] std::string eventLine(const Event& event);
[[nodiscard]] std::expected<Event, std::string> parseEvent(std::string_view text);

}  // namespace norvik::tunnel_helper_protocol
