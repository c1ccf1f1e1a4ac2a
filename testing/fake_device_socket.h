#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace norvik::testing {

// A one-shot WireGuard configuration socket in a thread: reads a request up to its empty line and
// answers it (or, with `answerAtAll` false, keeps the client waiting until it gives up).
class FakeDeviceSocket {
 public:
  FakeDeviceSocket(std::filesystem::path path, std::string answer, bool answerAtAll = true) : path_(std::move(path)) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 1), 0);
    thread_ = std::thread([this, answer = std::move(answer), answerAtAll] {
      const int fd = ::accept(listener_, nullptr, nullptr);
      if (fd < 0) return;
      char buffer[4096];
      while (!request_.ends_with("\n\n")) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        request_.append(buffer, static_cast<std::size_t>(n));
      }
      if (answerAtAll) {
        (void)!::write(fd, answer.data(), answer.size());
      } else {
        (void)!::read(fd, buffer, sizeof buffer);  // until the client gives up
      }
      ::close(fd);
    });
  }
  ~FakeDeviceSocket() {
    thread_.join();
    ::close(listener_);
  }
  [[nodiscard]] const std::string& request() const { return request_; }

 private:
  std::filesystem::path path_;
  int listener_ = -1;
  std::string request_;
  std::thread thread_;
};

}  // namespace norvik::testing
