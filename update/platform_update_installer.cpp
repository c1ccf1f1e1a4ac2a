#include "update/platform_update_installer.h"

#include "update/deb_package_installer.h"
#include "update/disk_image_installer.h"

namespace norvik {

std::unique_ptr<UpdateInstaller> makeUpdateInstaller(EventLoop& loop, FileDownloader& downloader,
                                                     ProcessRunner& processes, Log& log,
                                                     std::optional<Bytes> ed25519PublicKey) {
#if defined(__APPLE__)
  DiskImageInstallerConfig config;
  config.ed25519PublicKey = std::move(ed25519PublicKey);
  return std::make_unique<DiskImageInstaller>(loop, downloader, processes, log, std::move(config));
#else
  DebPackageInstallerConfig config;
  config.ed25519PublicKey = std::move(ed25519PublicKey);
  return std::make_unique<DebPackageInstaller>(loop, downloader, processes, log, std::move(config));
#endif
}

AppUpdaterConfig platformUpdaterConfig() {
  AppUpdaterConfig config;
#if !defined(__APPLE__)
  config.feedURL = std::string(kUpdateHost) + std::string(kLinuxAppcastPath);
  config.mirrorFeedURL = std::string(kMirrorUpdateHost) + std::string(kLinuxAppcastPath);
#endif
  return config;
}

}  // namespace norvik
