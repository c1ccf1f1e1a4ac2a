#include "testing/fake_system_extension_requests.h"

#include <algorithm>

namespace norvik::testing {

FakeSystemExtensionRequests::FakeSystemExtensionRequests(EventLoop& loop) : loop_(loop) {}

std::optional<std::string> FakeSystemExtensionRequests::packagedExtensionVersion(std::string_view identifier) const {
  if (!carriedReadable || identifier != carried.bundleIdentifier) return std::nullopt;
  return carried.bundleVersion;
}

void FakeSystemExtensionRequests::installCopy(std::string bundleVersion, std::string shortVersion) {
  installed = {SystemExtensionProperties{carried.bundleIdentifier, std::move(bundleVersion), std::move(shortVersion),
                                         true, false}};
}

std::size_t FakeSystemExtensionRequests::activationCount() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(submitted_, [](const Submitted& s) { return s.kind == Submitted::Kind::activation; }));
}

void FakeSystemExtensionRequests::submitActivationRequest(std::string identifier,
                                                          std::weak_ptr<SystemExtensionRequestDelegate> delegate) {
  submitted_.push_back({Submitted::Kind::activation, identifier});
  (void)loop_.postAfter(latency_, [this, alive = std::weak_ptr<bool>(alive_), identifier, delegate] {
    if (alive.lock()) answerActivation(identifier, delegate);
  });
}

void FakeSystemExtensionRequests::submitPropertiesRequest(std::string identifier,
                                                          std::weak_ptr<SystemExtensionRequestDelegate> delegate) {
  submitted_.push_back({Submitted::Kind::properties, identifier});
  (void)loop_.postAfter(latency_, [this, alive = std::weak_ptr<bool>(alive_), identifier, delegate] {
    if (!alive.lock()) return;
    auto d = delegate.lock();
    if (!d) return;
    if (!propertiesFailures_.empty()) {
      Error error = std::move(propertiesFailures_.front());
      propertiesFailures_.pop_front();
      return d->requestDidFail(error);
    }
    std::vector<SystemExtensionProperties> found;
    for (const auto& p : installed) {
      if (p.bundleIdentifier == identifier) found.push_back(p);
    }
    d->requestFoundProperties(found);
  });
}

void FakeSystemExtensionRequests::answerActivation(const std::string& identifier,
                                                   const std::weak_ptr<SystemExtensionRequestDelegate>& delegate) {
  auto d = delegate.lock();
  if (!d) return;
  if (!activationFailures_.empty()) {
    Error error = std::move(activationFailures_.front());
    activationFailures_.pop_front();
    return d->requestDidFail(error);
  }
  if (identifier != carried.bundleIdentifier) {
    return d->requestDidFail(makeSystemExtensionError(SystemExtensionErrorCode::extensionNotFound,
                                                      "The extension was not found in the application bundle."));
  }
  auto existing = std::ranges::find(installed, identifier, &SystemExtensionProperties::bundleIdentifier);
  if (existing != installed.end()) {
    const auto answer = d->actionForReplacingExtension(*existing, carried);
    questions_.push_back({*existing, carried, answer});
    if (answer == SystemExtensionReplacementAction::cancel) {
      return d->requestDidFail(
          makeSystemExtensionError(SystemExtensionErrorCode::requestCanceled, "The request was canceled."));
    }
  }
  install(delegate);
}

void FakeSystemExtensionRequests::install(const std::weak_ptr<SystemExtensionRequestDelegate>& delegate) {
  auto d = delegate.lock();
  if (approvalRequired) {
    SystemExtensionProperties waiting = carried;
    waiting.isEnabled = false;
    waiting.isAwaitingUserApproval = true;
    std::erase_if(installed, [](const auto& p) { return p.isAwaitingUserApproval; });
    installed.push_back(waiting);
    awaitingApproval_.push_back(delegate);
    d->requestNeedsUserApproval();
    if (failureAfterApprovalRequest) {
      awaitingApproval_.pop_back();
      d->requestDidFail(*failureAfterApprovalRequest);
    }
    return;
  }
  SystemExtensionProperties active = carried;
  active.isEnabled = true;
  active.isAwaitingUserApproval = false;
  installed = {active};
  d->requestDidFinish(rebootRequired ? SystemExtensionRequestResult::willCompleteAfterReboot
                                     : SystemExtensionRequestResult::completed);
}

void FakeSystemExtensionRequests::approve() {
  approvalRequired = false;
  auto waiting = std::exchange(awaitingApproval_, {});
  SystemExtensionProperties active = carried;
  active.isEnabled = true;
  active.isAwaitingUserApproval = false;
  installed = {active};
  for (const auto& weak : waiting) {
    (void)loop_.postAfter(latency_, [alive = std::weak_ptr<bool>(alive_), weak] {
      if (!alive.lock()) return;
      if (auto d = weak.lock()) d->requestDidFinish(SystemExtensionRequestResult::completed);
    });
  }
}

}  // namespace norvik::testing
