#include "platform/linux/tunnel_helper_extension_requests.h"

#include <charconv>
#include <cstring>
#include <sys/utsname.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/files.h"
#include "platform/text.h"

namespace norvik {
namespace {

std::filesystem::path versionFileOf(const std::filesystem::path& helper) {
  return helper.parent_path() / (helper.filename().string() + ".version");
}

std::string recordText(const SystemExtensionProperties& p) {
  return fmt::format("CFBundleVersion={}\nCFBundleShortVersionString={}\n", p.bundleVersion, p.bundleShortVersion);
}

bool isExecutableFile(const std::filesystem::path& path) {
  std::error_code ec;
  return std::filesystem::is_regular_file(path, ec) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::optional<SystemExtensionProperties> readHelperVersionFile(const std::filesystem::path& file,
                                                               std::string_view identifier) {
  auto text = readFile(file, 64 * 1024);
  if (!text) return std::nullopt;
  SystemExtensionProperties properties;
  properties.bundleIdentifier = std::string(identifier);
  std::string_view rest = *text;
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    const std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view key = trimWhitespace(line.substr(0, eq));
    const std::string value(trimWhitespace(line.substr(eq + 1)));
    if (key == "CFBundleVersion") properties.bundleVersion = value;
    if (key == "CFBundleShortVersionString") properties.bundleShortVersion = value;
  }
  if (properties.bundleVersion.empty()) return std::nullopt;
  if (properties.bundleShortVersion.empty()) properties.bundleShortVersion = properties.bundleVersion;
  properties.isEnabled = true;
  return properties;
}

TunnelHelperExtensionRequests::TunnelHelperExtensionRequests(EventLoop& loop, Options options)
    : loop_(loop), options_(std::move(options)) {
  if (options_.helperProgram.empty())
    options_.helperProgram = options_.bundlePath / "libexec" / "norvik" / "norvik-tunnel";
}

std::filesystem::path TunnelHelperExtensionRequests::bundleOfRunningProgram() {
  std::error_code ec;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return std::filesystem::current_path(ec);
  const std::filesystem::path dir = program.parent_path();
  return dir.filename() == "bin" ? dir.parent_path() : dir;
}

std::filesystem::path TunnelHelperExtensionRequests::activationRecord() const {
  return options_.stateDirectory / (std::string(kIdentifier) + ".activated");
}

SystemExtensionProperties TunnelHelperExtensionRequests::carried() const {
  return readHelperVersionFile(versionFileOf(options_.helperProgram), kIdentifier)
      .value_or(SystemExtensionProperties{std::string(kIdentifier), "", "", true, false});
}

bool TunnelHelperExtensionRequests::isTranslocated(const std::filesystem::path& bundle) const {
  for (const auto& part : bundle) {
    if (part.string().starts_with(".mount_")) return true;
  }
  return false;
}

std::optional<std::string> TunnelHelperExtensionRequests::packagedExtensionVersion(std::string_view identifier) const {
  if (identifier != kIdentifier) return std::nullopt;
  auto properties = readHelperVersionFile(versionFileOf(options_.helperProgram), identifier);
  if (!properties) return std::nullopt;
  return properties->bundleVersion;
}

int TunnelHelperExtensionRequests::operatingSystemMajorVersion() const {
  utsname names{};
  if (::uname(&names) != 0) return 0;
  // "6.1.0-13-amd64": the digits before the first dot.
  int major = 0;
  std::from_chars(names.release, names.release + std::strlen(names.release), major);
  return major;
}

void TunnelHelperExtensionRequests::submitPropertiesRequest(std::string identifier,
                                                            std::weak_ptr<SystemExtensionRequestDelegate> delegate) {
  loop_.post(
      [this, alive = std::weak_ptr<bool>(alive_), identifier = std::move(identifier), delegate = std::move(delegate)] {
        auto d = delegate.lock();
        if (!alive.lock() || !d) return;
        std::vector<SystemExtensionProperties> found;
        // Activated once, and the program is still there to serve the tunnel.
        if (identifier == kIdentifier && isExecutableFile(options_.helperProgram)) {
          if (auto recorded = readHelperVersionFile(activationRecord(), identifier)) found.push_back(*recorded);
        }
        d->requestFoundProperties(found);
      });
}

void TunnelHelperExtensionRequests::submitActivationRequest(std::string identifier,
                                                            std::weak_ptr<SystemExtensionRequestDelegate> delegate) {
  loop_.post(
      [this, alive = std::weak_ptr<bool>(alive_), identifier = std::move(identifier), delegate = std::move(delegate)] {
        if (alive.lock()) activate(identifier, delegate);
      });
}

void TunnelHelperExtensionRequests::activate(const std::string& identifier,
                                             const std::weak_ptr<SystemExtensionRequestDelegate>& delegate) {
  auto d = delegate.lock();
  if (!d) return;
  const std::filesystem::path& helper = options_.helperProgram;
  std::error_code ec;
  if (identifier != kIdentifier || !std::filesystem::is_regular_file(helper, ec)) {
    return d->requestDidFail(makeSystemExtensionError(SystemExtensionErrorCode::extensionNotFound,
                                                      fmt::format("Tunnel helper not found: {}", helper.string())));
  }
  if (::access(helper.c_str(), X_OK) != 0) {
    return d->requestDidFail(
        makeSystemExtensionError(SystemExtensionErrorCode::validationFailed,
                                 fmt::format("Tunnel helper is not executable: {}", helper.string())));
  }
  const SystemExtensionProperties replacement = carried();
  if (std::filesystem::exists(activationRecord(), ec)) {
    const SystemExtensionProperties existing =
        readHelperVersionFile(activationRecord(), identifier)
            .value_or(SystemExtensionProperties{identifier, "", "", true, false});
    if (d->actionForReplacingExtension(existing, replacement) == SystemExtensionReplacementAction::cancel) {
      return d->requestDidFail(
          makeSystemExtensionError(SystemExtensionErrorCode::requestCanceled, "The request was canceled."));
    }
  }
  if (auto made = makeDirectories(options_.stateDirectory, 0700); !made) {
    return d->requestDidFail(makeSystemExtensionError(SystemExtensionErrorCode::unknown, made.error().description()));
  }
  if (auto written = writeFileAtomically(activationRecord(), recordText(replacement), 0600); !written) {
    return d->requestDidFail(
        makeSystemExtensionError(SystemExtensionErrorCode::unknown, written.error().description()));
  }
  d->requestDidFinish(SystemExtensionRequestResult::completed);
}

}  // namespace norvik
