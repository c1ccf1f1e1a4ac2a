#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace norvik::testing {

// What the agent's log says it took from the clients, in its order: the last word about the tunnel
// decides what the tunnel must look like once things settle ("on" or "off"). A toggle is logged as
// what it turned into; a refused server change leaves the word before it standing.
inline std::optional<std::string> lastIntent(std::string_view log) {
  std::optional<std::string> last;
  std::size_t at = 0;
  constexpr std::string_view kTag = "[Intent] ";
  while ((at = log.find(kTag, at)) != std::string_view::npos) {
    const std::string_view rest = log.substr(at + kTag.size(), 64);
    if (rest.starts_with("подключить")) last = "on";
    if (rest.starts_with("отключить")) last = "off";
    if (rest.starts_with("сменить сервер")) last = "on";
    if (rest.starts_with("смена сервера отклонена")) last = std::nullopt;
    at += kTag.size();
  }
  return last;
}

}  // namespace norvik::testing
