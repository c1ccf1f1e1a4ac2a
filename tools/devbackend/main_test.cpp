// norvik-devbackend and the norvik command line as separate processes, as a developer runs them.
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"

namespace norvik::devbackend {
namespace {

// The backend in a child process: stdout on a pipe (read line by line), stderr in a file.
class BackendProcess {
 public:
  BackendProcess(std::vector<std::string> args, const std::filesystem::path& errFile) {
    int pipeFds[2];
    EXPECT_EQ(::pipe(pipeFds), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(pipeFds[1], STDOUT_FILENO);
      const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(err, STDERR_FILENO);
      ::close(pipeFds[0]);
      args.insert(args.begin(), NORVIK_DEVBACKEND_PATH);
      std::vector<char*> argv;
      argv.reserve(args.size() + 1);
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(pipeFds[1]);
    out_ = ::fdopen(pipeFds[0], "r");
  }
  ~BackendProcess() {
    if (pid_ > 0 && !waited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (out_) (void)std::fclose(out_);
  }

  // The next line of stdout (blocks until the child writes it); empty at the end.
  std::string readLine() {
    char buffer[4096];
    if (!std::fgets(buffer, sizeof buffer, out_)) return {};
    return buffer;
  }
  int terminate() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    waited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
  bool waited_ = false;
};

TEST(DevBackendMainTest, TheCommandLineClientTalksToTheBackendItWasToldAbout) {
  testing::TempDir dir;
  const auto ca = dir / "ca.pem";
  const auto provisioning = dir / "provisioning.json";
  BackendProcess backend({"--state-dir", (dir / "state").string(), "--write-ca", ca.string(), "--write-provisioning",
                          provisioning.string(), "--status", "st_open:418:1"},
                         dir / "backend.err");
  const std::string first = backend.readLine();
  ASSERT_TRUE(first.starts_with("norvik-devbackend: listening on https://127.0.0.1:")) << first;
  const std::string origin = first.substr(first.find("https://"), first.size() - first.find("https://") - 1);

  auto norvik = [&](std::vector<std::string> args) {
    std::vector<std::string> argv = {NORVIK_CLI_PATH,
                                     "--home",
                                     (dir / "home").string(),
                                     "--backend",
                                     origin + "/api/",
                                     "--ca-file",
                                     ca.string(),
                                     "--provisioning",
                                     provisioning.string(),
                                     "debug",
                                     "api"};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, {{"NORVIK_PROVISIONING", ""}});
  };
  auto main = norvik({"main"});
  EXPECT_EQ(main.exitStatus, 0) << main.out << main.err;
  auto key = norvik({"getkey"});
  ASSERT_EQ(key.exitStatus, 0) << key.out << key.err;
  const auto body = nlohmann::json::parse(key.out.substr(0, key.out.find('\n')), nullptr, false);
  ASSERT_TRUE(body.is_object()) << key.out;
  EXPECT_EQ(body["keyIP"], "203.0.113.10");
  auto refused = norvik({"st_open"});
  EXPECT_EQ(refused.exitStatus, 1) << "the injected status reaches the client";

  EXPECT_EQ(backend.terminate(), 0);
  const std::string log = readFile(dir / "backend.err").value();
  EXPECT_NE(log.find("verdict=ok status=200"), std::string::npos) << log;
  EXPECT_NE(log.find("POST st_open"), std::string::npos) << log;
  const std::string keyText = body["keyData"];
  const std::string privateKey = keyText.substr(keyText.find("PrivateKey = ") + 13, 44);
  EXPECT_EQ(log.find(privateKey), std::string::npos) << "no key reaches the backend's log";
  EXPECT_NE(readFile(dir / "state" / "state.json").value().find(body["keyIP"].get<std::string>()), std::string::npos)
      << "the device was saved before the backend stopped";
}

TEST(DevBackendMainTest, UsageErrorsExitWithTwo) {
  auto result = testing::runProcess({NORVIK_DEVBACKEND_PATH, "--status"});
  EXPECT_EQ(result.exitStatus, 2);
  testing::TempDir dir;
  auto bad = testing::runProcess({NORVIK_DEVBACKEND_PATH, "--state-dir", dir.path().string(), "--status", "main:1000"});
  EXPECT_EQ(bad.exitStatus, 2);
  EXPECT_NE(bad.err.find("\"main:1000\""), std::string::npos) << bad.err;
}

}  // namespace
}  // namespace norvik::devbackend
