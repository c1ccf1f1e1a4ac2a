#pragma once

#include <memory>
#include <optional>

#include "platform/bytes.h"
#include "platform/event_loop.h"
#include "platform/file_downloader.h"
#include "platform/log.h"
#include "platform/process_runner.h"
#include "update/app_updater.h"
#include "update/update_installer.h"

namespace norvik {

// The one place that picks how this system installs a release: the disk image on macOS, the Debian
// package elsewhere. Both take the release key from the provisioning.
[[nodiscard]] std::unique_ptr<UpdateInstaller> makeUpdateInstaller(EventLoop& loop, FileDownloader& downloader,
                                                                   ProcessRunner& processes, Log& log,
                                                                   std::optional<Bytes> ed25519PublicKey);

// The updater's settings for this system: the feed that offers its kind of release.
[[nodiscard]] AppUpdaterConfig platformUpdaterConfig();

}  // namespace norvik
