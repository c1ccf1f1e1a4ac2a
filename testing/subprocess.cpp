#include "testing/subprocess.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace norvik::testing {

SpawnArguments::SpawnArguments(const std::vector<std::string>& argv, const std::map<std::string, std::string>& setEnv)
    : args_(argv) {
  for (char** e = environ; *e; ++e) {
    std::string entry(*e);
    if (!setEnv.contains(entry.substr(0, entry.find('=')))) env_.push_back(std::move(entry));
  }
  for (const auto& [name, value] : setEnv) {
    if (!value.empty()) env_.emplace_back(name).append("=").append(value);
  }
  argp_.reserve(args_.size() + 1);
  for (auto& s : args_) argp_.push_back(s.data());
  argp_.push_back(nullptr);
  envp_.reserve(env_.size() + 1);
  for (auto& s : env_) envp_.push_back(s.data());
  envp_.push_back(nullptr);
}

ProcessResult runProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& setEnv) {
  const SpawnArguments spawn(argv, setEnv);
  int outPipe[2];
  int errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  pid_t pid = 0;
  const int rc = ::posix_spawn(&pid, spawn.program(), &actions, nullptr, spawn.argv(), spawn.envp());
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  if (rc != 0) {
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    throw std::runtime_error(std::string("posix_spawn ") + argv[0] + ": " + std::strerror(rc));
  }

  ProcessResult result;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[4096];
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace norvik::testing
