#include "tunnel_helper/privilege.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/format.h>

#include "tunnel_helper/wireguard_go_device.h"

namespace norvik::tunnel_helper {
namespace {

struct Capabilities {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};

  bool read() { return ::syscall(SYS_capget, &header, data) == 0; }
  bool write() { return ::syscall(SYS_capset, &header, data) == 0; }
  [[nodiscard]] bool permitted(int cap) const { return (data[cap / 32].permitted & (1u << (cap % 32))) != 0; }
  void inherit(int cap) { data[cap / 32].inheritable |= 1u << (cap % 32); }
};

bool holds(int cap) {
  if (::geteuid() == 0) return true;
  Capabilities caps;
  return caps.read() && caps.permitted(cap);
}

}  // namespace

std::string passCapabilitiesToChildren() {
  if (::geteuid() == 0) return {};
  Capabilities caps;
  if (!caps.read()) return {};
  std::string passed;
  for (const auto& [cap, name] :
       {std::pair{CAP_NET_ADMIN, "cap_net_admin"}, std::pair{CAP_DAC_OVERRIDE, "cap_dac_override"}}) {
    if (!caps.permitted(cap)) continue;
    caps.inherit(cap);
    if (!caps.write()) continue;
    if (::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, cap, 0, 0) == 0)
      passed += passed.empty() ? name : std::string(",") + name;
  }
  return passed;
}

std::expected<void, std::string> probeTunnelPrivilege(const std::filesystem::path& wireguardGo,
                                                      const std::filesystem::path& socketDirectory) {
  if (!findProgram(wireguardGo)) {
    return std::unexpected(fmt::format("не найдена программа {} (пакет wireguard-go)", wireguardGo.string()));
  }
  const int fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (fd < 0) return std::unexpected(fmt::format("/dev/net/tun не открывается: {}", std::strerror(errno)));
  ifreq request{};
  std::strncpy(request.ifr_name, "nvkprobe%d", IFNAMSIZ - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  // Not persistent: the interface disappears with the descriptor.
  const int created = ::ioctl(fd, TUNSETIFF, &request);
  const int err = errno;
  ::close(fd);
  if (created != 0) {
    if (err == EPERM)
      return std::unexpected("нет права создавать сетевые интерфейсы (нужна возможность CAP_NET_ADMIN)");
    return std::unexpected(fmt::format("интерфейс не создаётся: {}", std::strerror(err)));
  }
  std::error_code ec;
  const auto directory = std::filesystem::exists(socketDirectory, ec) ? socketDirectory : socketDirectory.parent_path();
  if (::access(directory.c_str(), W_OK | X_OK) != 0 && !holds(CAP_DAC_OVERRIDE)) {
    return std::unexpected(fmt::format("нет права писать в {} (сокет WireGuard)", directory.string()));
  }
  return {};
}

}  // namespace norvik::tunnel_helper
