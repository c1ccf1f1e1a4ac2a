#include "platform/linux/posix_process_runner.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace norvik {
namespace {

constexpr std::size_t kMaxCapturedBytes = 16u << 20;

Error startError(int err, const std::vector<std::string>& argv) {
  const std::string program = argv.empty() ? std::string("(empty command)") : argv.front();
  return Error{"POSIX", err, fmt::format("{}: {}", program, std::strerror(err))};
}

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  [[nodiscard]] int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct Pipe {
  Fd read;
  Fd write;
  bool open() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    read.reset(fds[0]);
    write.reset(fds[1]);
    return true;
  }
};

// posix_spawn's argument and file-action plumbing, shared by both kinds of run.
struct SpawnSetup {
  std::vector<std::string> args;
  std::vector<char*> argp;
  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};

  explicit SpawnSetup(const std::vector<std::string>& argv) : args(argv) {
    for (auto& a : args) argp.push_back(a.data());
    argp.push_back(nullptr);
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    // A child starts with the default signal dispositions and an empty mask, whatever this
    // process (a loop that handles SIGINT, say) has set.
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  int spawn(pid_t& pid, short flags) {
    posix_spawnattr_setflags(&attributes, static_cast<short>(flags | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
    return ::posix_spawn(&pid, argp[0], &actions, &attributes, argp.data(), environ);
  }
};

int waitForExit(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

void PosixProcessRunner::run(ProcessCommand command, ProcessCompletion completion) {
  runBlockingThenReply(
      loop_, [command = std::move(command)] { return runNow(command); }, std::move(completion));
}

ProcessRunResult PosixProcessRunner::runNow(const ProcessCommand& command) {
  const auto& argv = command.argv;
  if (argv.empty() || argv.front().empty()) return std::unexpected(startError(EINVAL, argv));

  Pipe out;
  Pipe err;
  if (!out.open() || !err.open()) return std::unexpected(startError(errno, argv));

  SpawnSetup setup(argv);
  posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&setup.actions, out.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&setup.actions, err.write.get(), STDERR_FILENO);
  pid_t pid = 0;
  // glibc reports a failed exec (a missing program, say) as the result of posix_spawn itself.
  if (const int rc = setup.spawn(pid, 0); rc != 0) return std::unexpected(startError(rc, argv));
  out.write.reset();
  err.write.reset();

  using Clock = std::chrono::steady_clock;
  const bool limited = command.timeout.count() > 0;
  const auto deadline = Clock::now() + command.timeout;
  ProcessOutput output;
  pollfd fds[2] = {{out.read.get(), POLLIN, 0}, {err.read.get(), POLLIN, 0}};
  std::string* sinks[2] = {&output.out, &output.err};
  int open = 2;
  bool timedOut = false;
  char buffer[16384];
  while (open > 0) {
    int wait = -1;
    if (limited) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) {
        timedOut = true;
        break;
      }
      wait = static_cast<int>(std::min<long long>(left, 60'000));
    }
    const int ready = ::poll(fds, 2, wait);
    if (ready < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        const std::size_t room = kMaxCapturedBytes - std::min(kMaxCapturedBytes, sinks[i]->size());
        sinks[i]->append(buffer, std::min(room, static_cast<std::size_t>(n)));
      } else if (n == 0 || errno != EINTR) {
        fds[i].fd = -1;  // poll ignores negative descriptors
        --open;
      }
    }
  }
  if (timedOut) {
    ::kill(pid, SIGKILL);
    waitForExit(pid);
    return std::unexpected(
        Error{"POSIX", ETIMEDOUT, fmt::format("{}: timed out after {} ms", argv.front(), command.timeout.count())});
  }
  output.exitStatus = waitForExit(pid);
  return output;
}

std::expected<void, Error> PosixProcessRunner::launchDetached(std::vector<std::string> argv) {
  if (argv.empty() || argv.front().empty()) return std::unexpected(startError(EINVAL, argv));
  SpawnSetup setup(argv);
  posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&setup.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&setup.actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  if (const int rc = setup.spawn(pid, POSIX_SPAWN_SETSID); rc != 0) return std::unexpected(startError(rc, argv));
  // Reap it whenever it ends, without holding up this process: if this process quits first, the
  // child is adopted and reaped by init.
  std::thread([pid] { waitForExit(pid); }).detach();
  return {};
}

}  // namespace norvik
