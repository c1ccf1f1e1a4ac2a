#include "tunnel/system_extension_texts.h"

#include "platform/system_extension_requests.h"

namespace norvik {

namespace {
bool allowsWithSwitch(int systemMajorVersion) { return systemMajorVersion >= sysext_texts::kSwitchApprovalSince; }
}  // namespace

SysExtError SysExtError::notInApplications(std::string path, int systemMajorVersion) {
  return SysExtError{Kind::notInApplications, std::move(path), 0, {}, systemMajorVersion};
}

SysExtError SysExtError::translocated(int systemMajorVersion) {
  return SysExtError{Kind::translocated, {}, 0, {}, systemMajorVersion};
}

SysExtError SysExtError::failed(Error underlying, int systemMajorVersion) {
  const int code = underlying.code;
  return SysExtError{Kind::failed, {}, code, std::move(underlying), systemMajorVersion};
}

std::string_view approvalInstruction(int systemMajorVersion) {
  return allowsWithSwitch(systemMajorVersion) ? sysext_texts::kApprovalSwitch : sysext_texts::kApprovalSecurity;
}

std::string SysExtError::description() const {
  switch (kind) {
    case Kind::notInApplications:
      return std::string(sysext_texts::kNotInApplications);
    case Kind::translocated:
      return std::string(sysext_texts::kTranslocated);
    case Kind::failed:
    default:
      break;
  }
  using Code = SystemExtensionErrorCode;
  switch (static_cast<Code>(code)) {
    case Code::missingEntitlement:
    case Code::codeSignatureInvalid:
    case Code::validationFailed:
      return std::string(sysext_texts::kSignatureInvalid);
    case Code::unsupportedParentBundleLocation:
      return std::string(sysext_texts::kUnsupportedLocation);
    case Code::forbiddenBySystemPolicy:
      return std::string(sysext_texts::kBlockedPrefix) + std::string(approvalInstruction(systemMajorVersion));
    case Code::authorizationRequired:
      return std::string(sysext_texts::kAuthorizationRequired);
    default:
      return underlying.description();
  }
}

std::optional<SystemExtensionBanner> systemExtensionBanner(const SystemExtensionState& state, int systemMajorVersion) {
  using Kind = SystemExtensionState::Kind;
  switch (state.kind) {
    case Kind::failed:
      return SystemExtensionBanner{std::string(sysext_texts::kBannerErrorTitle), state.failureText};
    case Kind::needsReboot:
      return SystemExtensionBanner{std::string(sysext_texts::kBannerRebootTitle), std::string(sysext_texts::kReboot)};
    case Kind::needsApproval:
      return SystemExtensionBanner{
          std::string(sysext_texts::kBannerApprovalTitle),
          std::string(allowsWithSwitch(systemMajorVersion) ? sysext_texts::kBannerApprovalSwitch
                                                           : sysext_texts::kBannerApprovalSecurity)};
    case Kind::unknown:
    case Kind::activating:
    case Kind::active:
    default:
      return std::nullopt;
  }
}

}  // namespace norvik
