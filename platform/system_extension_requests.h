#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"

namespace norvik {

// Errors of the system's extension requests carry this domain and the system's codes.
inline constexpr std::string_view kSystemExtensionErrorDomain = "OSSystemExtensionErrorDomain";
enum class SystemExtensionErrorCode : int {
  unknown = 1,
  missingEntitlement = 2,
  unsupportedParentBundleLocation = 3,
  extensionNotFound = 4,
  extensionMissingIdentifier = 5,
  duplicateExtensionIdentifier = 6,
  unknownExtensionCategory = 7,
  codeSignatureInvalid = 8,
  validationFailed = 9,
  forbiddenBySystemPolicy = 10,
  requestCanceled = 11,
  requestSuperseded = 12,
  authorizationRequired = 13,
};

[[nodiscard]] inline Error makeSystemExtensionError(SystemExtensionErrorCode code, std::string message) {
  return Error{std::string(kSystemExtensionErrorDomain), static_cast<int>(code), std::move(message)};
}

// What the system knows of one extension: the installed copy, or the copy a request carries.
struct SystemExtensionProperties {
  std::string bundleIdentifier;
  std::string bundleVersion;       // "CFBundleVersion"
  std::string bundleShortVersion;  // "CFBundleShortVersionString"
  bool isEnabled = false;
  bool isAwaitingUserApproval = false;
  bool operator==(const SystemExtensionProperties&) const = default;
};

enum class SystemExtensionReplacementAction { cancel, replace };
enum class SystemExtensionRequestResult { completed, willCompleteAfterReboot };

// The delegate of one request, shaped after the system's: the system asks it whether an installed
// copy is replaced, and tells it how the request went. Every call runs on the main loop.
//
// Order: an activation may ask `actionForReplacingExtension` once (only when a copy is installed),
// then calls `requestNeedsUserApproval` and/or ends with exactly one of `requestDidFinish` and
// `requestDidFail`. A request that needed approval stays open and may finish much later, once the
// user has allowed the extension. A properties request ends with exactly one of
// `requestFoundProperties` and `requestDidFail`.
class SystemExtensionRequestDelegate {
 public:
  virtual ~SystemExtensionRequestDelegate() = default;

  [[nodiscard]] virtual SystemExtensionReplacementAction actionForReplacingExtension(
      const SystemExtensionProperties& existing, const SystemExtensionProperties& replacement) = 0;
  virtual void requestNeedsUserApproval() = 0;
  virtual void requestDidFinish(SystemExtensionRequestResult result) = 0;
  virtual void requestDidFail(const Error& error) = 0;
  virtual void requestFoundProperties(const std::vector<SystemExtensionProperties>& properties) = 0;
};

// The system's extension requests, and the facts about the running application they depend on.
// The system holds a request's delegate weakly: once its owner lets it go, later answers are
// dropped. Submitting never blocks; the answers come on the main loop.
class SystemExtensionRequests {
 public:
  virtual ~SystemExtensionRequests() = default;

  // Asks the system to activate the extension `identifier` that the main bundle carries.
  virtual void submitActivationRequest(std::string identifier,
                                       std::weak_ptr<SystemExtensionRequestDelegate> delegate) = 0;
  // Asks what the system has installed under `identifier` (possibly nothing).
  virtual void submitPropertiesRequest(std::string identifier,
                                       std::weak_ptr<SystemExtensionRequestDelegate> delegate) = 0;

  // The application's own bundle, and whether the system runs it from a temporary, translocated
  // copy. A failing translocation probe answers false.
  [[nodiscard]] virtual std::filesystem::path mainBundlePath() const = 0;
  [[nodiscard]] virtual bool isTranslocated(const std::filesystem::path& bundle) const = 0;
  // The folder applications must live in to carry an extension, with a trailing slash.
  [[nodiscard]] virtual std::string applicationsDirectory() const = 0;
  // The bundle version of the extension `identifier` that the main bundle carries; nothing when it
  // cannot be read.
  [[nodiscard]] virtual std::optional<std::string> packagedExtensionVersion(std::string_view identifier) const = 0;
  // The operating system's major version.
  [[nodiscard]] virtual int operatingSystemMajorVersion() const = 0;
};

}  // namespace norvik
