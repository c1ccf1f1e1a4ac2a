#pragma once

#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/system_extension_requests.h"

namespace norvik::testing {

// The system's extension requests as the system answers them. An activation asks the delegate
// about replacement whenever a copy is installed; keeping it ends the request as cancelled
// (requestCanceled, 11), as the system does. Installing waits for the user's approval while
// `approvalRequired` holds: the request reports that it needs approval and stays open until
// approve(), which finishes it — after the runner has long answered. Answers come on the loop
// after `latency`, to delegates that still exist.
class FakeSystemExtensionRequests final : public SystemExtensionRequests {
 public:
  struct Submitted {
    enum class Kind { activation, properties };
    Kind kind;
    std::string identifier;
  };
  struct ReplacementQuestion {
    SystemExtensionProperties existing;
    SystemExtensionProperties replacement;
    SystemExtensionReplacementAction answer;
  };

  explicit FakeSystemExtensionRequests(EventLoop& loop);

  void submitActivationRequest(std::string identifier, std::weak_ptr<SystemExtensionRequestDelegate> delegate) override;
  void submitPropertiesRequest(std::string identifier, std::weak_ptr<SystemExtensionRequestDelegate> delegate) override;
  [[nodiscard]] std::filesystem::path mainBundlePath() const override { return bundlePath; }
  [[nodiscard]] bool isTranslocated(const std::filesystem::path&) const override { return translocated; }
  [[nodiscard]] std::string applicationsDirectory() const override { return "/Applications/"; }
  [[nodiscard]] std::optional<std::string> packagedExtensionVersion(std::string_view identifier) const override;
  [[nodiscard]] int operatingSystemMajorVersion() const override { return majorVersion; }

  // --- The machine ---
  std::filesystem::path bundlePath = "/Applications/Norvik.app";
  bool translocated = false;
  int majorVersion = 15;
  // The copy the application carries; its version cannot be read while `carriedReadable` is false.
  SystemExtensionProperties carried{"com.norvik.macos.tunnel", "100", "1.0.0", true, false};
  bool carriedReadable = true;
  // What the system has installed (what a properties request finds).
  std::vector<SystemExtensionProperties> installed;

  // --- How the system answers ---
  bool approvalRequired = false;
  bool rebootRequired = false;
  // Set: right after reporting that approval is needed, the system also fails the open request
  // with this error (as when the user refuses), on the same delegate.
  std::optional<Error> failureAfterApprovalRequest;
  void failNextActivation(Error error) { activationFailures_.push_back(std::move(error)); }
  void failNextPropertiesRequest(Error error) { propertiesFailures_.push_back(std::move(error)); }
  void setLatency(EventLoop::Duration latency) { latency_ = latency; }
  // The user allows the extension: open requests finish as completed.
  void approve();

  // An installed copy of the carried extension with other versions.
  void installCopy(std::string bundleVersion, std::string shortVersion);

  // --- What tests look at ---
  [[nodiscard]] const std::vector<Submitted>& submitted() const { return submitted_; }
  [[nodiscard]] std::size_t activationCount() const;
  [[nodiscard]] const std::vector<ReplacementQuestion>& replacementQuestions() const { return questions_; }
  [[nodiscard]] std::size_t openRequestCount() const { return awaitingApproval_.size(); }

 private:
  void answerActivation(const std::string& identifier, const std::weak_ptr<SystemExtensionRequestDelegate>& delegate);
  void install(const std::weak_ptr<SystemExtensionRequestDelegate>& delegate);

  EventLoop& loop_;
  EventLoop::Duration latency_{std::chrono::milliseconds(50)};
  std::deque<Error> activationFailures_;
  std::deque<Error> propertiesFailures_;
  std::vector<Submitted> submitted_;
  std::vector<ReplacementQuestion> questions_;
  std::vector<std::weak_ptr<SystemExtensionRequestDelegate>> awaitingApproval_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace norvik::testing
