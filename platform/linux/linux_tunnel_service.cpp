#include "platform/linux/linux_tunnel_service.h"

#include <fmt/format.h>

#include "platform/linux/tunnel_helper_process.h"
#include "platform/linux/wireguard_tunnel_service.h"
#include "platform/simulated_tunnel_service.h"

namespace norvik {

std::optional<TunnelServiceKind> tunnelServiceKindNamed(std::string_view name) {
  if (name == "simulated") return TunnelServiceKind::simulated;
  if (name == "wireguard") return TunnelServiceKind::wireguard;
  if (name == "auto" || name.empty()) return TunnelServiceKind::automatic;
  return std::nullopt;
}

std::expected<LinuxTunnelService, std::string> makeLinuxTunnelService(const LinuxTunnelServiceSetup& setup) {
  auto simulated = [&] {
    SimulatedTunnelService::Options options;
    options.storeFile = setup.storeFile;
    options.connectDelay = setup.simulatedConnectDelay;
    return LinuxTunnelService{std::make_unique<SimulatedTunnelService>(setup.loop, setup.clock, setup.log,
                                                                       setup.notifications, std::move(options)),
                              "simulated"};
  };
  if (setup.kind == TunnelServiceKind::simulated) return simulated();

  std::string unavailable;
  auto helper = findTunnelHelper();
  if (!helper) {
    unavailable = "norvik-tunnel не найден (рядом с norvik, в ../libexec/norvik, в PATH или в $NORVIK_TUNNEL_HELPER)";
  } else if (auto probe = probeTunnelHelper(*helper); !probe) {
    unavailable = probe.error();
  }
  if (!unavailable.empty()) {
    if (setup.kind == TunnelServiceKind::wireguard) {
      return std::unexpected(fmt::format("Туннель WireGuard недоступен: {}", unavailable));
    }
    setup.log.format("[Tunnel] туннель WireGuard недоступен ({}) — работает имитация туннеля", unavailable);
    return simulated();
  }
  setup.log.format("[Tunnel] туннель WireGuard: {}", helper->string());
  WireGuardTunnelService::Options options;
  options.storeFile = setup.storeFile;
  auto launcher = std::make_unique<PosixTunnelHelperLauncher>(setup.loop, std::vector<std::string>{helper->string()});
  return LinuxTunnelService{
      std::make_unique<WireGuardTunnelService>(setup.loop, setup.clock, setup.log, setup.notifications,
                                               std::move(launcher), std::move(options)),
      "wireguard"};
}

}  // namespace norvik
