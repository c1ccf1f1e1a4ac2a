#include "app/control_client.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace norvik {

std::expected<ControlClient, ControlClient::Error> ControlClient::connect(const std::filesystem::path& socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.native().size() >= sizeof address.sun_path)
    return std::unexpected(Error{Failure::io, "socket path too long"});
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::unexpected(Error{Failure::io, std::strerror(errno)});
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int err = errno;
    ::close(fd);
    // No socket, or nobody listening on it: no agent runs for this home.
    if (err == ENOENT || err == ECONNREFUSED) return std::unexpected(Error{Failure::noAgent, std::strerror(err)});
    return std::unexpected(Error{Failure::io, std::strerror(err)});
  }
  return ControlClient(fd);
}

ControlClient::ControlClient(ControlClient&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), buffer_(std::move(other.buffer_)) {}

ControlClient::~ControlClient() {
  if (fd_ >= 0) ::close(fd_);
}

std::expected<nlohmann::json, ControlClient::Error> ControlClient::request(
    const nlohmann::json& request, const std::function<void(const nlohmann::json&)>& onEvent,
    std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::string line = request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  for (std::string_view rest = line; !rest.empty();) {
    const ssize_t n = ::send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::unexpected(Error{Failure::io, std::strerror(errno)});
    }
    rest.remove_prefix(static_cast<std::size_t>(n));
  }

  for (;;) {
    for (auto newline = buffer_.find('\n'); newline != std::string::npos; newline = buffer_.find('\n')) {
      auto answer = nlohmann::json::parse(buffer_.substr(0, newline), nullptr, /*allow_exceptions=*/false);
      buffer_.erase(0, newline + 1);
      if (!answer.is_object()) return std::unexpected(Error{Failure::badAnswer, "the agent's answer is not JSON"});
      if (answer.contains("ok")) return answer;
      if (onEvent) onEvent(answer);
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::unexpected(Error{Failure::timedOut, "no answer in time"});
    pollfd pfd{fd_, POLLIN, 0};
    const int ready = ::poll(&pfd, 1, static_cast<int>(std::min<long long>(left.count(), 1000)));
    if (ready < 0 && errno != EINTR) return std::unexpected(Error{Failure::io, std::strerror(errno)});
    if (ready <= 0) continue;
    char chunk[4096];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n == 0) return std::unexpected(Error{Failure::io, "the agent closed the connection"});
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::unexpected(Error{Failure::io, std::strerror(errno)});
    }
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

}  // namespace norvik
