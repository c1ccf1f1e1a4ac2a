#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/event_loop.h"
#include "platform/system_extension_requests.h"

namespace norvik {

// The system's extension requests on Linux, where the tunnel helper program (norvik-tunnel) plays
// the network extension "com.norvik.macos.tunnel". The application's "bundle" is its installation
// prefix; it carries the helper as `<bundle>/libexec/norvik/norvik-tunnel`, with a version file
// beside it, `norvik-tunnel.version`:
//
//   CFBundleVersion=142
//   CFBundleShortVersionString=1.4.2
//
// (one `Key=Value` per line; a missing short version reads as the bundle version, a missing file
// as an unknown version). The helper is never copied — it keeps the capability it was installed
// with. Activating checks that it is present and executable and records the version it activated
// in `<state directory>/com.norvik.macos.tunnel.activated` (same format): that record is the
// "installed copy". When a record exists the delegate is asked whether to replace it; keeping it
// ends the request as cancelled, as on the original system; replacing it rewrites the record. So
// after a package update the recorded and the carried versions differ, and the application
// restarts a running tunnel on the new helper. Nothing needs the user's approval or a reboot here.
//
// A bundle run from an AppImage's temporary mount (a path component starting with ".mount_") is
// the counterpart of a translocated application. The system's major version is the kernel's.
//
// Threading: a main-loop object; answers come on the loop.
class TunnelHelperExtensionRequests final : public SystemExtensionRequests {
 public:
  static constexpr std::string_view kIdentifier = "com.norvik.macos.tunnel";

  struct Options {
    std::filesystem::path bundlePath;       // the installation prefix
    std::filesystem::path stateDirectory;   // where the activation record lives
    std::filesystem::path helperProgram{};  // empty: <bundle>/libexec/norvik/norvik-tunnel
    std::string applicationsDirectory = "/usr/";
  };

  TunnelHelperExtensionRequests(EventLoop& loop, Options options);

  // The installation prefix of the running program: the parent of its "bin" directory, or the
  // directory that holds it.
  [[nodiscard]] static std::filesystem::path bundleOfRunningProgram();
  [[nodiscard]] const std::filesystem::path& helperProgram() const { return options_.helperProgram; }
  [[nodiscard]] std::filesystem::path activationRecord() const;

  void submitActivationRequest(std::string identifier, std::weak_ptr<SystemExtensionRequestDelegate> delegate) override;
  void submitPropertiesRequest(std::string identifier, std::weak_ptr<SystemExtensionRequestDelegate> delegate) override;
  [[nodiscard]] std::filesystem::path mainBundlePath() const override { return options_.bundlePath; }
  [[nodiscard]] bool isTranslocated(const std::filesystem::path& bundle) const override;
  [[nodiscard]] std::string applicationsDirectory() const override { return options_.applicationsDirectory; }
  [[nodiscard]] std::optional<std::string> packagedExtensionVersion(std::string_view identifier) const override;
  [[nodiscard]] int operatingSystemMajorVersion() const override;

 private:
  void activate(const std::string& identifier, const std::weak_ptr<SystemExtensionRequestDelegate>& delegate);
  [[nodiscard]] SystemExtensionProperties carried() const;

  EventLoop& loop_;
  Options options_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// Reads a version file of the helper; nothing when it is missing or names no bundle version.
[[nodiscard]] std::optional<SystemExtensionProperties> readHelperVersionFile(const std::filesystem::path& file,
                                                                             std::string_view identifier);

}  // namespace norvik
