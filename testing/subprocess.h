#pragma once

#include <map>
#include <string>
#include <vector>

namespace norvik::testing {

// An argument vector and an environment as posix_spawn takes them. The environment is this
// process's, with `setEnv` applied ("" removes a variable). The pointers point into the object, so
// it is neither copied nor moved.
class SpawnArguments {
 public:
  SpawnArguments(const std::vector<std::string>& argv, const std::map<std::string, std::string>& setEnv);
  SpawnArguments(const SpawnArguments&) = delete;
  SpawnArguments& operator=(const SpawnArguments&) = delete;

  [[nodiscard]] const char* program() const { return args_.empty() ? "" : args_.front().c_str(); }
  [[nodiscard]] char* const* argv() const { return argp_.data(); }
  [[nodiscard]] char* const* envp() const { return envp_.data(); }

 private:
  std::vector<std::string> args_;
  std::vector<std::string> env_;
  std::vector<char*> argp_;
  std::vector<char*> envp_;
};

struct ProcessResult {
  int exitStatus = -1;  // the exit code, or 128 + signal
  std::string out;
  std::string err;
};

// Runs a program to its end with an argument vector (no shell), capturing stdout and stderr.
// The environment is this process's, with `setEnv` applied ("" removes a variable).
[[nodiscard]] ProcessResult runProcess(const std::vector<std::string>& argv,
                                       const std::map<std::string, std::string>& setEnv = {});

}  // namespace norvik::testing
