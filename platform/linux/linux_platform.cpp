#include "platform/linux/linux_platform.h"

#include "platform/files.h"
#include "platform/linux/curl_file_downloader.h"
#include "platform/linux/curl_http_transport.h"
#include "platform/linux/file_log.h"
#include "platform/linux/file_secure_item_store.h"
#include "platform/linux/glibc_dns_resolver.h"
#include "platform/linux/netlink_path_source.h"
#include "platform/linux/openssl_crypto.h"
#include "platform/linux/posix_process_runner.h"
#include "platform/linux/sqlite_defaults.h"
#include "platform/linux/system_clock.h"
#include "platform/linux/timerfd_clock_change_source.h"
#include "platform/linux/xdg_autostart_login_item.h"

namespace norvik {
namespace {

// A build that was not installed starts itself at login: "<this program> agent", when its path
// needs no quoting in a desktop entry.
std::string loginEntryExecOfThisProgram() {
  std::error_code ec;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe", ec).string();
  if (ec || self.empty()) return {};
  for (char c : self) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                       c == '.' || c == '_' || c == '-' || c == '+';
    if (!plain) return {};
  }
  return self + " agent";
}

}  // namespace

std::expected<Platform, Error> makeLinuxPlatform(EventLoop& loop, const LinuxPlatformOptions& options) {
  const AppPaths& paths = options.paths;
  if (auto made = makeDirectories(paths.home, 0700); !made) return std::unexpected(made.error());

  Platform platform;
  auto log = FileLog::open({paths.logs() / "norvik.log", options.logToStderr});
  if (!log) return std::unexpected(log.error());
  platform.log = std::move(*log);
  platform.analytics = std::make_unique<FileAnalytics>(paths.logs() / "analytics.log");
  platform.clock = std::make_unique<SystemClock>();
  platform.crypto = std::make_unique<OpenSslCrypto>();

  auto standard = SqliteDefaults::open(paths.standardDefaults(), *platform.log, "standard settings");
  if (!standard) return std::unexpected(standard.error());
  if ((*standard)->reset()) platform.storeResets.push_back(*(*standard)->reset());
  platform.standardDefaults = std::move(*standard);

  // The group suite is shared with the tunnel and the widget. When it cannot be had, the
  // application still runs: its readers take their defaults and its writes are skipped.
  std::expected<std::unique_ptr<SqliteDefaults>, Error> group = std::unexpected(Error{});
  if (auto made = makeDirectories(paths.groupContainer(), 0700); made) {
    group = SqliteDefaults::open(paths.groupDefaults(), *platform.log, "group settings");
  } else {
    group = std::unexpected(made.error());
  }
  if (group) {
    if ((*group)->reset()) platform.storeResets.push_back(*(*group)->reset());
    platform.groupDefaults = std::move(*group);
  } else {
    platform.log->format("[Defaults] общие настройки недоступны ({}) — работаем со значениями по умолчанию",
                         group.error().message);
    platform.storeResets.push_back(StoreReset{"group settings", group.error().message, {}, 0});
    platform.groupDefaults = std::make_unique<UnavailableDefaults>(group.error());
  }

  auto secureItems = std::make_unique<FileSecureItemStore>(paths.secureStore());
  if (auto reset = secureItems->setAsideIfDamaged()) {
    platform.log->format("[Keychain] хранилище ключей повреждено ({}) — файл сохранён как {}, начато пустое",
                         reset->reason, reset->setAside.string());
    platform.storeResets.push_back(std::move(*reset));
  }
  platform.secureItems = std::move(secureItems);

  auto http = CurlHttpTransport::create(loop, {options.extraCaFile});
  if (!http) return std::unexpected(http.error());
  platform.http = std::move(*http);

  auto downloads = CurlFileDownloader::create(loop, {options.extraCaFile});
  if (!downloads) return std::unexpected(downloads.error());
  platform.downloads = std::move(*downloads);
  platform.processes = std::make_unique<PosixProcessRunner>(loop);
  platform.physicalPaths = std::make_unique<NetlinkPathSource>(*platform.log);
  platform.networkReturns = std::make_unique<NetlinkPathSource>(*platform.log);
  platform.clockChanges = std::make_unique<TimerfdClockChangeSource>();
  platform.dnsResolver = std::make_unique<GlibcDnsResolver>(loop);
  platform.loginItem =
      std::make_unique<XdgAutostartLoginItem>(XdgAutostartLoginItem::forThisUser(loginEntryExecOfThisProgram()));
  return platform;
}

}  // namespace norvik
