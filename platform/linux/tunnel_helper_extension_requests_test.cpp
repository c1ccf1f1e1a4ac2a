#include "platform/linux/tunnel_helper_extension_requests.h"

#include <gtest/gtest.h>

#include "platform/files.h"
#include "testing/temp_dir.h"
#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

constexpr std::string_view kId = "com.norvik.macos.tunnel";

// Records what the system said and answers the replacement question as told.
class RecordingDelegate final : public SystemExtensionRequestDelegate {
 public:
  SystemExtensionReplacementAction answer = SystemExtensionReplacementAction::replace;
  std::vector<std::pair<SystemExtensionProperties, SystemExtensionProperties>> asked;
  std::optional<SystemExtensionRequestResult> finished;
  std::optional<Error> failed;
  std::optional<std::vector<SystemExtensionProperties>> found;

  SystemExtensionReplacementAction actionForReplacingExtension(const SystemExtensionProperties& existing,
                                                               const SystemExtensionProperties& replacement) override {
    asked.emplace_back(existing, replacement);
    return answer;
  }
  void requestNeedsUserApproval() override { ADD_FAILURE() << "nothing needs approval here"; }
  void requestDidFinish(SystemExtensionRequestResult result) override { finished = result; }
  void requestDidFail(const Error& error) override { failed = error; }
  void requestFoundProperties(const std::vector<SystemExtensionProperties>& properties) override { found = properties; }
};

class TunnelHelperExtensionRequestsTest : public ::testing::Test {
 protected:
  void carry(std::string_view version, mode_t mode = 0755) {
    const auto helper = system_.helperProgram();
    ASSERT_TRUE(makeDirectories(helper.parent_path()).has_value());
    ASSERT_TRUE(writeFileAtomically(helper, "#!/bin/sh\n", mode).has_value());
    ASSERT_TRUE(writeFileAtomically(helper.string() + ".version", version).has_value());
  }

  std::shared_ptr<RecordingDelegate> activate(
      SystemExtensionReplacementAction answer = SystemExtensionReplacementAction::replace) {
    auto delegate = std::make_shared<RecordingDelegate>();
    delegate->answer = answer;
    system_.submitActivationRequest(std::string(kId), delegate);
    loop_.runUntilIdle();
    return delegate;
  }

  std::vector<SystemExtensionProperties> installed() {
    auto delegate = std::make_shared<RecordingDelegate>();
    system_.submitPropertiesRequest(std::string(kId), delegate);
    loop_.runUntilIdle();
    return delegate->found.value();
  }

  testing::TempDir dir_;
  testing::VirtualEventLoop loop_;
  TunnelHelperExtensionRequests system_{loop_, {dir_ / "usr", dir_ / "home" / "extensions"}};
};

TEST_F(TunnelHelperExtensionRequestsTest, AMissingOrNonExecutableHelperFailsWithTheSystemsCodes) {
  auto missing = activate();
  ASSERT_TRUE(missing->failed.has_value());
  EXPECT_EQ(missing->failed->domain, "OSSystemExtensionErrorDomain");
  EXPECT_EQ(missing->failed->code, 4);

  carry("CFBundleVersion=1\n", 0644);
  auto notExecutable = activate();
  ASSERT_TRUE(notExecutable->failed.has_value());
  EXPECT_EQ(notExecutable->failed->code, 9);
  EXPECT_TRUE(installed().empty());
}

TEST_F(TunnelHelperExtensionRequestsTest, TheFirstActivationRecordsTheHelpersVersion) {
  EXPECT_EQ(system_.helperProgram(), dir_ / "usr" / "libexec" / "norvik" / "norvik-tunnel");
  carry("CFBundleVersion=142\nCFBundleShortVersionString = 1.4.2\n");
  EXPECT_EQ(system_.packagedExtensionVersion(kId), "142");
  EXPECT_TRUE(installed().empty()) << "carried but never activated";

  auto first = activate();
  EXPECT_TRUE(first->asked.empty()) << "nothing was installed to ask about";
  EXPECT_EQ(first->finished, SystemExtensionRequestResult::completed);
  EXPECT_EQ(installed(), (std::vector<SystemExtensionProperties>{{std::string(kId), "142", "1.4.2", true, false}}));
}

TEST_F(TunnelHelperExtensionRequestsTest, AfterAPackageUpdateTheRecordIsKeptOrReplacedAsTheDelegateAnswers) {
  carry("CFBundleVersion=1\n");
  ASSERT_TRUE(activate()->finished.has_value());
  carry("CFBundleVersion=2\nCFBundleShortVersionString=2.0\n");

  auto kept = activate(SystemExtensionReplacementAction::cancel);
  ASSERT_EQ(kept->asked.size(), 1u);
  EXPECT_EQ(kept->asked[0].first.bundleVersion, "1");
  EXPECT_EQ(kept->asked[0].first.bundleShortVersion, "1") << "no short version reads as the bundle version";
  EXPECT_EQ(kept->asked[0].second.bundleShortVersion, "2.0");
  ASSERT_TRUE(kept->failed.has_value());
  EXPECT_EQ(kept->failed->code, 11);
  EXPECT_EQ(installed().at(0).bundleVersion, "1");

  EXPECT_EQ(activate(SystemExtensionReplacementAction::replace)->finished, SystemExtensionRequestResult::completed);
  EXPECT_EQ(installed().at(0).bundleVersion, "2");

  std::filesystem::remove(system_.helperProgram());
  EXPECT_TRUE(installed().empty()) << "a removed helper serves nothing";
}

TEST_F(TunnelHelperExtensionRequestsTest, AnUnreadableVersionIsUnknownNotAnError) {
  carry("garbage\n=\nCFBundleShortVersionString=1.0\n");
  EXPECT_EQ(system_.packagedExtensionVersion(kId), std::nullopt);
  EXPECT_TRUE(activate()->finished.has_value());
}

TEST_F(TunnelHelperExtensionRequestsTest, AnAppImageMountCountsAsTranslocated) {
  EXPECT_TRUE(system_.isTranslocated("/tmp/.mount_NorvikAb12Cd/usr"));
  EXPECT_FALSE(system_.isTranslocated("/usr/local"));
  EXPECT_FALSE(TunnelHelperExtensionRequests::bundleOfRunningProgram().empty());
  EXPECT_GT(system_.operatingSystemMajorVersion(), 2);
}

}  // namespace
}  // namespace norvik
