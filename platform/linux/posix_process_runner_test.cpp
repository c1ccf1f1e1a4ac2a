#include "platform/linux/posix_process_runner.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "testing/temp_dir.h"
#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

class PosixProcessRunnerTest : public ::testing::Test {
 protected:
  ProcessRunResult run(std::vector<std::string> argv, std::chrono::milliseconds timeout = 0ms) {
    std::optional<ProcessRunResult> result;
    runner_.run({std::move(argv), timeout}, [&](ProcessRunResult r) {
      EXPECT_TRUE(loop_.isLoopThread());
      result = std::move(r);
    });
    loop_.runUntilIdle();
    EXPECT_TRUE(result.has_value()) << "the completion did not run";
    return result ? std::move(*result) : std::unexpected(Error{"TEST", 0, "no result"});
  }

  testing::VirtualEventLoop loop_;
  PosixProcessRunner runner_{loop_};
  testing::TempDir dir_;
};

TEST_F(PosixProcessRunnerTest, CapturesBothStreamsAndTheExitStatus) {
  auto result = run({"/bin/sh", "-c", "printf 'на выход'; printf oops >&2; exit 3"});
  ASSERT_TRUE(result.has_value()) << result.error().message;
  EXPECT_EQ(result->exitStatus, 3);
  EXPECT_EQ(result->out, "на выход");
  EXPECT_EQ(result->err, "oops");
  EXPECT_FALSE(result->succeeded());
}

TEST_F(PosixProcessRunnerTest, ArgumentsReachTheProgramUninterpreted) {
  const auto marker = dir_ / "injected";
  const std::string hostile = "$(touch " + marker.string() + "); `touch " + marker.string() + "` && echo 'x\" y";
  auto result = run({"/bin/echo", hostile});
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->out, hostile + "\n");
  EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST_F(PosixProcessRunnerTest, AMissingProgramIsAnErrorNotAnExitStatus) {
  auto result = run({"/usr/bin/hdiutil", "attach", "x.dmg"});
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().domain, "POSIX");
  EXPECT_EQ(result.error().code, ENOENT);
  EXPECT_NE(result.error().message.find("/usr/bin/hdiutil"), std::string::npos);

  auto empty = run({});
  ASSERT_FALSE(empty.has_value());
  EXPECT_EQ(empty.error().code, EINVAL);
}

TEST_F(PosixProcessRunnerTest, ARunPastItsTimeoutIsKilled) {
  const auto started = std::chrono::steady_clock::now();
  auto result = run({"/bin/sleep", "20"}, 150ms);
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().code, ETIMEDOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
}

TEST_F(PosixProcessRunnerTest, ADetachedProgramRunsOnWithoutBeingWaitedFor) {
  const auto file = dir_ / "relaunched";
  auto launched = runner_.launchDetached({"/bin/sh", "-c", "sleep 0.05; echo up > '" + file.string() + "'"});
  ASSERT_TRUE(launched.has_value()) << launched.error().message;
  // The call returned before the program finished; now wait for its trace (a real process).
  for (int i = 0; i < 200 && !std::filesystem::exists(file); ++i) std::this_thread::sleep_for(10ms);
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "up");

  EXPECT_FALSE(runner_.launchDetached({"/no/such/program"}).has_value());
}

}  // namespace
}  // namespace norvik
