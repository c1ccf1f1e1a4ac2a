#include "testing/background_process.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/files.h"
#include "testing/subprocess.h"

namespace norvik::testing {

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv, const std::filesystem::path& outputFile,
                                     const std::map<std::string, std::string>& setEnv)
    : outputFile_(outputFile) {
  const SpawnArguments spawn(argv, setEnv);
  const int out = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) throw std::runtime_error("BackgroundProcess: cannot open " + outputFile.string());
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  const int rc = ::posix_spawn(&pid_, spawn.program(), &actions, nullptr, spawn.argv(), spawn.envp());
  posix_spawn_file_actions_destroy(&actions);
  ::close(out);
  if (rc != 0) throw std::runtime_error("BackgroundProcess: cannot start " + argv[0]);
}

BackgroundProcess::~BackgroundProcess() {
  if (running()) stop(std::chrono::seconds(5));
}

bool BackgroundProcess::running() {
  if (status_ >= 0) return false;
  int status = 0;
  const pid_t done = ::waitpid(pid_, &status, WNOHANG);
  if (done == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
  }
  return done == 0;
}

int BackgroundProcess::stop(std::chrono::milliseconds grace) {
  if (!running()) return status_;
  ::kill(pid_, SIGTERM);
  if (!waitFor([this] { return !running(); }, grace)) {
    ::kill(pid_, SIGKILL);
    waitFor([this] { return !running(); }, std::chrono::seconds(5));
  }
  return status_;
}

std::string BackgroundProcess::output() const { return readFile(outputFile_).value_or(""); }

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace norvik::testing
