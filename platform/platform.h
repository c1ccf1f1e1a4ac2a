#pragma once

#include <memory>
#include <vector>

#include "platform/clock.h"
#include "platform/clock_change_source.h"
#include "platform/crypto.h"
#include "platform/defaults.h"
#include "platform/dns_resolver.h"
#include "platform/file_downloader.h"
#include "platform/http_transport.h"
#include "platform/log.h"
#include "platform/login_item.h"
#include "platform/physical_path_source.h"
#include "platform/process_runner.h"
#include "platform/secure_item_store.h"
#include "platform/store_reset.h"

namespace norvik {

// The operating-system services of one process, chosen once at start-up (see
// platform/linux/linux_platform.h) and lent to the product's objects by reference.
struct Platform {
  std::unique_ptr<Log> log;
  std::unique_ptr<Analytics> analytics;
  std::unique_ptr<Clock> clock;
  std::unique_ptr<Crypto> crypto;
  std::unique_ptr<Defaults> standardDefaults;
  std::unique_ptr<Defaults> groupDefaults;
  std::unique_ptr<SecureItemStore> secureItems;
  std::unique_ptr<HttpTransport> http;
  std::unique_ptr<FileDownloader> downloads;
  std::unique_ptr<ProcessRunner> processes;
  std::unique_ptr<PhysicalPathSource> physicalPaths;
  // A second watch of the same network, for the tunnel's on-demand rule; may be absent.
  std::unique_ptr<PhysicalPathSource> networkReturns;
  std::unique_ptr<ClockChangeSource> clockChanges;
  std::unique_ptr<DnsResolver> dnsResolver;
  std::unique_ptr<LoginItem> loginItem;  // may be absent: the switch then only logs
  // The stores that had to be started afresh when the platform was made (damaged files set aside),
  // for the status to show; empty on an ordinary start.
  std::vector<StoreReset> storeResets;
};

}  // namespace norvik
