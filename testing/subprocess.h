#pragma once

#include <map>
#include <string>
#include <vector>

namespace norvik::testing {

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
