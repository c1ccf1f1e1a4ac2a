#include "app/control_client.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace norvik {
namespace {

using SteadyClock = std::chrono::steady_clock;

int millisecondsLeft(SteadyClock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 1000));
}

}  // namespace

std::expected<ControlClient, ControlClient::Error> ControlClient::connect(const std::filesystem::path& socketPath,
                                                                          std::chrono::milliseconds limit) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.native().size() >= sizeof address.sun_path)
    return std::unexpected(Error{Failure::io, "socket path too long"});
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return std::unexpected(Error{Failure::io, std::strerror(errno)});
  ControlClient client(fd);
  // A UNIX socket whose listener does not accept (a stopped agent with a full backlog) refuses a
  // non-blocking connect with EAGAIN instead of queueing it: try again until the limit.
  const auto deadline = SteadyClock::now() + limit;
  for (;;) {
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return client;
    const int err = errno;
    if (err == EINTR) continue;
    // No socket, or nobody listening on it: no agent runs for this home.
    if (err == ENOENT || err == ECONNREFUSED) return std::unexpected(Error{Failure::noAgent, std::strerror(err)});
    if (err != EAGAIN) return std::unexpected(Error{Failure::io, std::strerror(err)});
    if (SteadyClock::now() >= deadline)
      return std::unexpected(Error{Failure::timedOut, "the agent accepts no connection"});
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

ControlClient::ControlClient(ControlClient&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      buffer_(std::move(other.buffer_)),
      scanned_(std::exchange(other.scanned_, 0)) {}

ControlClient::~ControlClient() {
  if (fd_ >= 0) ::close(fd_);
}

std::expected<void, ControlClient::Error> ControlClient::sendAll(std::string_view bytes,
                                                                 std::chrono::steady_clock::time_point deadline) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return std::unexpected(Error{Failure::io, std::strerror(errno)});
    if (SteadyClock::now() >= deadline) return std::unexpected(Error{Failure::timedOut, "the agent takes no request"});
    pollfd pfd{fd_, POLLOUT, 0};
    (void)::poll(&pfd, 1, millisecondsLeft(deadline));
  }
  return {};
}

std::expected<nlohmann::json, ControlClient::Error> ControlClient::request(
    const nlohmann::json& request, const std::function<void(const nlohmann::json&)>& onEvent,
    std::chrono::milliseconds limit) {
  const auto deadline = SteadyClock::now() + limit;
  const std::string line = request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  if (auto sent = sendAll(line, deadline); !sent) return std::unexpected(sent.error());

  for (;;) {
    // Only the bytes that came since the last look are searched for the end of a line.
    for (auto newline = buffer_.find('\n', scanned_); newline != std::string::npos;
         newline = buffer_.find('\n', scanned_)) {
      auto answer = nlohmann::json::parse(std::string_view(buffer_).substr(0, newline), nullptr,
                                          /*allow_exceptions=*/false);
      buffer_.erase(0, newline + 1);
      scanned_ = 0;
      if (!answer.is_object()) return std::unexpected(Error{Failure::badAnswer, "the agent's answer is not JSON"});
      if (answer.contains("ok")) return answer;
      if (onEvent) onEvent(answer);
    }
    scanned_ = buffer_.size();
    if (buffer_.size() > kMaxAnswerLine) {
      return std::unexpected(Error{Failure::badAnswer, "the agent's answer is longer than any answer can be"});
    }
    const int wait = millisecondsLeft(deadline);
    if (wait <= 0) return std::unexpected(Error{Failure::timedOut, "no answer in time"});
    pollfd pfd{fd_, POLLIN, 0};
    const int ready = ::poll(&pfd, 1, wait);
    if (ready < 0 && errno != EINTR) return std::unexpected(Error{Failure::io, std::strerror(errno)});
    if (ready <= 0) continue;
    char chunk[64 * 1024];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n == 0) return std::unexpected(Error{Failure::io, "the agent closed the connection"});
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return std::unexpected(Error{Failure::io, std::strerror(errno)});
    }
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

}  // namespace norvik
