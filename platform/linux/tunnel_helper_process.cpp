#include "platform/linux/tunnel_helper_process.h"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/files.h"

namespace norvik {
namespace {

constexpr std::size_t kMaxLine = 8u << 20;

int statusOf(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return -1;
}

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// A started child with pipes to its standard input, output and error.
struct Child {
  pid_t pid = -1;
  int input = -1;
  int output = -1;
  int errors = -1;
};

std::expected<Child, Error> spawn(const std::vector<std::string>& args) {
  if (args.empty()) return std::unexpected(posixError(EINVAL, "spawn", ""));
  int in[2], out[2], err[2], failure[2];
  if (::pipe2(in, O_CLOEXEC) != 0) return std::unexpected(posixError(errno, "pipe", args[0]));
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0 || ::pipe2(failure, O_CLOEXEC) != 0) {
    return std::unexpected(posixError(errno, "pipe", args[0]));
  }
  std::vector<std::string> copy = args;
  std::vector<char*> argv;
  argv.reserve(copy.size() + 1);
  for (auto& arg : copy) argv.push_back(arg.data());
  argv.push_back(nullptr);

  const pid_t pid = ::fork();
  if (pid < 0) {
    const int e = errno;
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1], failure[0], failure[1]}) ::close(fd);
    return std::unexpected(posixError(e, "fork", args[0]));
  }
  if (pid == 0) {
    // Its own process group: a terminal's Ctrl-C reaches the application, which stops the helper.
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(in[0], STDIN_FILENO);
    ::dup2(out[1], STDOUT_FILENO);
    ::dup2(err[1], STDERR_FILENO);
    ::fcntl(failure[1], F_SETFD, FD_CLOEXEC);
    // Nothing of the application (its lock, its sockets) goes with the helper.
    for (int fd = 3; fd < 1024; ++fd) {
      if (fd != failure[1]) ::close(fd);
    }
    ::execve(argv[0], argv.data(), environ);
    const int e = errno;
    (void)!::write(failure[1], &e, sizeof e);
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  ::close(failure[1]);
  int execError = 0;
  ssize_t n;
  do {
    n = ::read(failure[0], &execError, sizeof execError);
  } while (n < 0 && errno == EINTR);
  ::close(failure[0]);
  if (n == sizeof execError) {
    ::waitpid(pid, nullptr, 0);
    ::close(in[1]);
    ::close(out[0]);
    ::close(err[0]);
    return std::unexpected(posixError(execError, "exec", args[0]));
  }
  return Child{pid, in[1], out[0], err[0]};
}

class PosixTunnelHelperProcess final : public TunnelHelperProcess {
 public:
  PosixTunnelHelperProcess(EventLoop& loop, Child child, TunnelHelperCallbacks callbacks,
                           std::chrono::milliseconds grace)
      : loop_(loop), child_(child), grace_(grace), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    ::fcntl(child_.input, F_SETFL, O_NONBLOCK);
    auto shared = std::make_shared<TunnelHelperCallbacks>(std::move(callbacks));
    thread_ = std::thread([this, shared] { run(shared); });
  }

  ~PosixTunnelHelperProcess() override {
    closeInput();
    {
      std::unique_lock lock(mutex_);
      if (!changed_.wait_for(lock, grace_, [this] { return exited_; })) {
        signalLocked(SIGKILL);
      }
    }
    thread_.join();
    ::close(wake_);
  }

  void send(std::string line) override {
    std::lock_guard lock(mutex_);
    if (inputClosing_) return;
    queue_ += line;
    wake();
  }
  void closeInput() override {
    std::lock_guard lock(mutex_);
    inputClosing_ = true;
    wake();
  }
  void terminate() override {
    std::lock_guard lock(mutex_);
    signalLocked(SIGTERM);
  }
  void kill() override {
    std::lock_guard lock(mutex_);
    signalLocked(SIGKILL);
  }

 private:
  // The child is reaped only under the lock, after it was seen to exit: a signal never reaches
  // another process that got the same pid.
  void signalLocked(int signal) const {
    if (!reaped_) ::kill(child_.pid, signal);
  }
  void wake() const {
    const std::uint64_t one = 1;
    (void)!::write(wake_, &one, sizeof one);
  }

  // Moves bytes until the helper's output and error close, then waits for it to exit.
  void run(const std::shared_ptr<TunnelHelperCallbacks>& callbacks) {
    std::string outLine, errLine;
    char buffer[65536];
    int output = child_.output, errors = child_.errors, input = child_.input;
    // Readable once the helper has exited, even while a process it started still holds its pipes.
    int exitWatch = static_cast<int>(::syscall(SYS_pidfd_open, child_.pid, 0));
    auto deliver = [&](std::string& pending, bool isEvent) {
      for (auto newline = pending.find('\n'); newline != std::string::npos; newline = pending.find('\n')) {
        std::string line = pending.substr(0, newline);
        pending.erase(0, newline + 1);
        loop_.post([callbacks, isEvent, line = std::move(line)]() mutable {
          auto& target = isEvent ? callbacks->event : callbacks->log;
          if (target) target(std::move(line));
        });
      }
      if (pending.size() > kMaxLine) pending.clear();
    };
    while (output >= 0 || errors >= 0) {
      bool wantWrite = false;
      {
        std::lock_guard lock(mutex_);
        if (input >= 0 && queue_.empty() && inputClosing_) closeFd(input);
        wantWrite = input >= 0 && !queue_.empty();
      }
      pollfd fds[5] = {{output, POLLIN, 0},
                       {errors, POLLIN, 0},
                       {wake_, POLLIN, 0},
                       {wantWrite ? input : -1, POLLOUT, 0},
                       {exitWatch, POLLIN, 0}};
      if (::poll(fds, 5, -1) < 0 && errno != EINTR) break;
      if (fds[4].revents & POLLIN) {
        // What the helper wrote before it exited is still read; then its pipes are let go.
        for (auto [fd, pending, isEvent] :
             {std::tuple{&output, &outLine, true}, std::tuple{&errors, &errLine, false}}) {
          if (*fd < 0) continue;
          ::fcntl(*fd, F_SETFL, O_NONBLOCK);
          for (ssize_t n; (n = ::read(*fd, buffer, sizeof buffer)) > 0;)
            pending->append(buffer, static_cast<std::size_t>(n));
          deliver(*pending, isEvent);
          closeFd(*fd);
        }
        break;
      }
      if (fds[2].revents & POLLIN) {
        std::uint64_t count;
        (void)!::read(wake_, &count, sizeof count);
      }
      if (fds[3].revents & (POLLOUT | POLLERR | POLLHUP)) {
        std::lock_guard lock(mutex_);
        const ssize_t n = ::write(input, queue_.data(), queue_.size());
        if (n > 0) queue_.erase(0, static_cast<std::size_t>(n));
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
          queue_.clear();  // the helper no longer reads; its exit follows
          closeFd(input);
        }
      }
      for (auto [index, fd, isEvent] : {std::tuple{0, &output, true}, std::tuple{1, &errors, false}}) {
        if (!(fds[index].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        const ssize_t n = ::read(*fd, buffer, sizeof buffer);
        if (n > 0) {
          (isEvent ? outLine : errLine).append(buffer, static_cast<std::size_t>(n));
          deliver(isEvent ? outLine : errLine, isEvent);
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
          closeFd(*fd);
        }
      }
    }
    {
      std::lock_guard lock(mutex_);
      closeFd(input);
    }
    closeFd(exitWatch);
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(child_.pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    int raw = 0;
    {
      std::lock_guard lock(mutex_);
      ::waitpid(child_.pid, &raw, 0);
      reaped_ = true;
      exited_ = true;
    }
    changed_.notify_all();
    loop_.post([callbacks, status = statusOf(raw)] {
      if (callbacks->exited) callbacks->exited(status);
    });
  }

  EventLoop& loop_;
  Child child_;
  std::chrono::milliseconds grace_;
  int wake_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string queue_;
  bool inputClosing_ = false;
  bool reaped_ = false;
  bool exited_ = false;
  std::thread thread_;
};

// Runs a program to its end (bounded), answering its exit status and standard output.
std::expected<std::pair<int, std::string>, Error> runToEnd(const std::vector<std::string>& args,
                                                           std::chrono::milliseconds timeout) {
  auto child = spawn(args);
  if (!child) return std::unexpected(child.error());
  ::close(child->input);
  ::fcntl(child->output, F_SETFL, O_NONBLOCK);
  std::string out;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buffer[4096];
  int raw = 0;
  for (;;) {
    for (;;) {
      const ssize_t n = ::read(child->output, buffer, sizeof buffer);
      if (n <= 0) break;
      if (out.size() < 65536) out.append(buffer, static_cast<std::size_t>(n));
    }
    if (::waitpid(child->pid, &raw, WNOHANG) == child->pid) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(child->pid, SIGKILL);
      ::waitpid(child->pid, &raw, 0);
      ::close(child->output);
      ::close(child->errors);
      return std::unexpected(posixError(ETIMEDOUT, "wait", args[0]));
    }
    pollfd p{child->output, POLLIN, 0};
    ::poll(&p, 1, 20);
  }
  for (ssize_t n; (n = ::read(child->output, buffer, sizeof buffer)) > 0;)
    out.append(buffer, static_cast<std::size_t>(n));
  ::close(child->output);
  ::close(child->errors);
  return std::pair{statusOf(raw), out};
}

bool isExecutable(const std::filesystem::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

PosixTunnelHelperLauncher::PosixTunnelHelperLauncher(EventLoop& loop, std::vector<std::string> argv,
                                                     std::chrono::milliseconds stopGrace)
    : loop_(loop), argv_(std::move(argv)), stopGrace_(stopGrace) {}

std::expected<std::unique_ptr<TunnelHelperProcess>, Error> PosixTunnelHelperLauncher::launch(
    TunnelHelperCallbacks callbacks) {
  auto child = spawn(argv_);
  if (!child) return std::unexpected(child.error());
  return std::make_unique<PosixTunnelHelperProcess>(loop_, *child, std::move(callbacks), stopGrace_);
}

void PosixTunnelHelperLauncher::cleanUpAfterCrash() {
  if (argv_.empty()) return;
  loop_.runBlocking([program = argv_.front()] { (void)runToEnd({program, "cleanup"}, std::chrono::seconds(10)); });
}

std::optional<std::filesystem::path> findTunnelHelper() {
  if (const char* forced = ::getenv("NORVIK_TUNNEL_HELPER"); forced && *forced) {
    return isExecutable(forced) ? std::optional<std::filesystem::path>(forced) : std::nullopt;
  }
  std::error_code ec;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    const auto dir = self.parent_path();
    for (const auto& candidate : {dir / "norvik-tunnel", dir / ".." / "libexec" / "norvik" / "norvik-tunnel",
                                  dir / ".." / "tunnel_helper" / "norvik-tunnel"}) {
      if (isExecutable(candidate)) return candidate.lexically_normal();
    }
  }
  const char* path = ::getenv("PATH");
  std::string_view rest = path ? path : "";
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const std::filesystem::path candidate = std::filesystem::path(rest.substr(0, colon)) / "norvik-tunnel";
    if (isExecutable(candidate)) return candidate;
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
  }
  return std::nullopt;
}

std::expected<void, std::string> probeTunnelHelper(const std::filesystem::path& helper,
                                                   std::chrono::milliseconds timeout) {
  auto result = runToEnd({helper.string(), "probe"}, timeout);
  if (!result) return std::unexpected(fmt::format("{} probe: {}", helper.string(), result.error().message));
  if (result->first == 0) return {};
  std::string reason = result->second;
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r')) reason.pop_back();
  if (reason.empty()) reason = fmt::format("{} probe: код выхода {}", helper.string(), result->first);
  return std::unexpected(reason);
}

}  // namespace norvik
