#include "app/app_context.h"

#include <sys/stat.h>

#include <fmt/format.h>

#include <utility>

#include "platform/linux/linux_platform.h"

namespace norvik::cli {

AppContext::AppContext(GlobalOptions options, AppPaths paths)
    : options_(std::move(options)), paths_(std::move(paths)) {}

AppContext::~AppContext() {
  // Work still running on the workers may use the objects below; let it finish first.
  loop_.joinWorkers();
}

std::expected<std::unique_ptr<AppContext>, CommandError> AppContext::open(const GlobalOptions& options) {
  std::unique_ptr<AppContext> context(new AppContext(options, AppPaths::resolve(options.home)));
  LinuxPlatformOptions platformOptions{context->paths_, options.caFile, options.verbose};
  auto platform = makeLinuxPlatform(context->loop_, platformOptions);
  if (!platform) return failure(ExitCode::usage, platform.error().description());
  context->platform_ = std::move(*platform);
  return context;
}

SecurityManager& AppContext::identity() {
  if (!security_) {
    // Without provisioning there are no keys; reading the identifier does not need them.
    const Provisioning keys = provisioning_.value_or(Provisioning{});
    security_ = std::make_unique<SecurityManager>(keys, *platform_.secureItems, *platform_.standardDefaults,
                                                  *platform_.crypto, *platform_.clock, *platform_.log);
  }
  return *security_;
}

std::expected<NetworkService*, CommandError> AppContext::backend() {
  if (network_) return network_.get();

  auto path = provisioningPath(options_.provisioning);
  if (!path) {
    return failure(ExitCode::usage, "no provisioning file: pass --provisioning FILE or set NORVIK_PROVISIONING");
  }
  auto loaded = loadProvisioning(*path);
  if (!loaded) return failure(ExitCode::usage, loaded.error().message);
  struct stat st {};
  if (::stat(path->c_str(), &st) == 0 && (st.st_mode & 0077) != 0) {
    platform_.log->format("[Provisioning] {} is readable by other users; keep it 0600", path->string());
  }
  provisioning_ = std::move(*loaded);
  security_.reset();  // rebuilt with the keys

  NetworkServiceConfig config;
  if (options_.backend) {
    auto location = BackendLocation::fromURL(*options_.backend);
    if (!location)
      return failure(ExitCode::usage, fmt::format("--backend {}: {}", *options_.backend, location.error()));
    config.location = std::move(*location);
  }
  config.supportHmacSecret = provisioning_->supportHmacSecret;
  config.supportHmacMessage = provisioning_->supportHmacMessage;
  network_ = std::make_unique<NetworkService>(loop_, *platform_.http, identity(), *platform_.standardDefaults,
                                              *platform_.clock, *platform_.log, std::move(config));
  return network_.get();
}

void AppContext::runLoop() { loop_.run(); }

}  // namespace norvik::cli
