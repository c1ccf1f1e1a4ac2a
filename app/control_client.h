#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace norvik {

// The command line's side of the control socket: one connection, blocking, with a time limit.
class ControlClient {
 public:
  enum class Failure { noAgent, io, timedOut, badAnswer };
  struct Error {
    Failure failure;
    std::string detail;
  };

  [[nodiscard]] static std::expected<ControlClient, Error> connect(const std::filesystem::path& socketPath);
  ControlClient(ControlClient&& other) noexcept;
  ControlClient& operator=(ControlClient&&) = delete;
  ~ControlClient();

  // Sends one request and reads lines until the final one (the line with "ok"), which it returns.
  // Intermediate lines go to `onEvent`. `limit` bounds the whole exchange.
  [[nodiscard]] std::expected<nlohmann::json, Error> request(const nlohmann::json& request,
                                                             const std::function<void(const nlohmann::json&)>& onEvent,
                                                             std::chrono::milliseconds limit);

 private:
  explicit ControlClient(int fd) : fd_(fd) {}
  int fd_;
  std::string buffer_;
};

}  // namespace norvik
