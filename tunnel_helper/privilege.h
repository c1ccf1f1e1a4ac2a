#pragma once

#include <expected>
#include <filesystem>
#include <string>

namespace norvik::tunnel_helper {

// A helper that runs unprivileged but holds file capabilities (cap_net_admin, and cap_dac_override
// for WireGuard's socket directory) passes them on to the userspace WireGuard process it starts,
// which needs them too. Root needs nothing of this. Answers what was passed on, for the log.
std::string passCapabilitiesToChildren();

// Whether this process may run a tunnel here: the userspace WireGuard program is there, /dev/net/tun
// opens, an interface can be created (a throw-away one that vanishes at once) and WireGuard's socket
// directory can be written. The error says, in the user's words, what is missing.
[[nodiscard]] std::expected<void, std::string> probeTunnelPrivilege(const std::filesystem::path& wireguardGo,
                                                                    const std::filesystem::path& socketDirectory);

}  // namespace norvik::tunnel_helper
