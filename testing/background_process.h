#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace norvik::testing {

// A program started in the background for an integration test (the agent, the local backend),
// with its output kept in a file. It is stopped with SIGTERM — and SIGKILL if it does not end in
// time — when the test asks or when the object goes away.
class BackgroundProcess {
 public:
  BackgroundProcess(const std::vector<std::string>& argv, const std::filesystem::path& outputFile,
                    const std::map<std::string, std::string>& setEnv = {});
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;
  ~BackgroundProcess();

  // Sends SIGTERM and waits; the exit status, or 128 + the signal that ended it.
  int stop(std::chrono::milliseconds grace = std::chrono::seconds(10));
  [[nodiscard]] bool running();
  [[nodiscard]] std::string output() const;
  [[nodiscard]] int pid() const { return pid_; }

 private:
  int pid_ = -1;
  int status_ = -1;
  std::filesystem::path outputFile_;
};

// Waits (really: these are other processes) until `done` holds, checking every 20 ms.
bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace norvik::testing
