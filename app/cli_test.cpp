// The norvik command line as a user runs it: a separate process, real files under --home, and a
// real HTTPS server on loopback.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/crypto.h"
#include "platform/files.h"
#include "testing/backend_verifier.h"
#include "testing/loopback_https_server.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"
#include "testing/test_data.h"
#include "testing/test_provisioning.h"

namespace norvik {
namespace {

using testing::ProcessResult;
using testing::ServerReply;
using testing::ServerRequest;

class CliTest : public ::testing::Test {
 protected:
  CliTest() { EXPECT_TRUE(writeProvisioning(provisioning_, testing::testProvisioning())); }

  ProcessResult norvik(std::vector<std::string> args) {
    std::vector<std::string> argv = {NORVIK_CLI_PATH, "--home", home_.string()};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, {{"NORVIK_PROVISIONING", ""}});
  }

  ProcessResult api(std::vector<std::string> args) {
    std::vector<std::string> argv = {"--backend",      server_.url("/api/"),   "--ca-file", server_.caFile().string(),
                                     "--provisioning", provisioning_.string(), "debug",     "api"};
    argv.insert(argv.end(), args.begin(), args.end());
    return norvik(argv);
  }

  testing::TempDir dir_;
  std::filesystem::path home_ = dir_ / "home";
  std::filesystem::path provisioning_ = dir_ / "provisioning.json";
  testing::LoopbackHttpsServer server_;
};

TEST_F(CliTest, TheVendorIdPersistsAndSurvivesALockedStoreThroughItsMirror) {
  auto first = norvik({"debug", "vendor-id"});
  ASSERT_EQ(first.exitStatus, 0) << first.err;
  EXPECT_NE(first.out.find("trusted: true"), std::string::npos);
  EXPECT_EQ(norvik({"debug", "vendor-id"}).out, first.out);

  ASSERT_EQ(norvik({"debug", "secure-store", "lock"}).exitStatus, 0);
  auto locked = norvik({"debug", "vendor-id"});
  EXPECT_EQ(locked.out, first.out) << "the mirror answers while the store is locked";
  ASSERT_EQ(norvik({"debug", "secure-store", "unlock"}).exitStatus, 0);
}

TEST_F(CliTest, DebugApiSendsASignedRequestAndPrintsTheAnswer) {
  const std::string mainBody = testing::readTestData("main_response.json");
  std::string vendorId;
  server_.setHandler([&](const ServerRequest& r) {
    auto verified = testing::verifySignedRequest(r.headers, r.body, asBytes(testing::testProvisioning().apiHmacKey),
                                                 testing::testAesKey());
    if (!verified) return ServerReply{401, R"({"message":"bad signature"})"};
    vendorId = verified->vendorId;
    return ServerReply{200, mainBody};
  });
  auto result = api({"main"});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_TRUE(result.out.starts_with(mainBody));
  EXPECT_NE(result.out.find("key:          present, server 203.0.113.10"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("routing (in main)"), std::string::npos);
  ASSERT_EQ(server_.requests().size(), 1u);
  EXPECT_EQ(server_.requests()[0].path, "/api/main");
  EXPECT_NE(norvik({"debug", "vendor-id"}).out.find(vendorId), std::string::npos) << "the server opened our identifier";
}

TEST_F(CliTest, DebugApiReportsTheErrorCodeAndNeverRepeatsAServerChange) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{503, R"({"message":"Сервер перегружен"})"}; });
  auto result = api({"change_server", "--param", "reason=test"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err, "SERVER_OVERLOAD: Сервер перегружен\n");
  EXPECT_EQ(server_.requests().size(), 1u);
  EXPECT_NE(server_.requests()[0].body.find("\"reason\":\"test\""), std::string::npos);
}

TEST_F(CliTest, ALockedStoreWithoutMirrorSendsNothing) {
  ASSERT_EQ(norvik({"debug", "secure-store", "lock"}).exitStatus, 0);
  auto result = api({"main"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.err, "KEYCHAIN_LOCKED: Device ID unavailable while keychain is locked\n");
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(CliTest, ConfigurationErrorsExitWithStatusTwoAndSayWhatIsWrong) {
  auto none = norvik({"--backend", server_.url("/api/"), "debug", "api", "main"});
  EXPECT_EQ(none.exitStatus, 2);
  EXPECT_NE(none.err.find("--provisioning"), std::string::npos) << none.err;

  ASSERT_TRUE(writeFileAtomically(provisioning_, R"({"api_hmac_key": "x"})", 0600));
  auto partial = api({"main"});
  EXPECT_EQ(partial.exitStatus, 2);
  EXPECT_NE(partial.err.find(provisioning_.string()), std::string::npos) << partial.err;
  EXPECT_NE(partial.err.find("\"hmac_secret_key\" is missing"), std::string::npos) << partial.err;

  EXPECT_EQ(api({"no_such_endpoint"}).exitStatus, 2);
  EXPECT_EQ(norvik({"--backend", "ftp://x/", "--provisioning", (dir_ / "absent").string(), "debug", "api", "main"})
                .exitStatus,
            2);
  EXPECT_EQ(norvik({"no-such-command"}).exitStatus, 2);
  // Numbers that are not whole milliseconds, or do not fit, are usage errors rather than a crash.
  for (const char* delay : {"1e3", "99999999999999999999999", "-5", "12ms"}) {
    EXPECT_EQ(norvik({"agent", "--simulated-connect-ms", delay}).exitStatus, 2) << delay;
  }
  EXPECT_TRUE(server_.requests().empty());
}

}  // namespace
}  // namespace norvik
