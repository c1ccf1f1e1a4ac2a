#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"

namespace norvik {

// One program run: the absolute path of the program first, then its arguments. The vector goes to
// the program as it is — there is never a shell in between, so nothing in an argument is
// interpreted. A program that must be handed a shell text (AppleScript, `sh -c`) is the caller's
// explicit choice, and the caller quotes every path inside that text.
struct ProcessCommand {
  std::vector<std::string> argv;
  // The run is ended (SIGKILL) after this long; zero waits for as long as it takes.
  std::chrono::milliseconds timeout{0};
};

// How a program ended and what it wrote.
struct ProcessOutput {
  int exitStatus = -1;  // the exit code, or 128 + the signal that ended it
  std::string out;
  std::string err;

  [[nodiscard]] bool succeeded() const { return exitStatus == 0; }
};

// A program that did not run at all (missing, not executable, no resources, timed out) is an
// Error of domain "POSIX" with the errno value; a program that ran and failed is a ProcessOutput
// with a non-zero status.
using ProcessRunResult = std::expected<ProcessOutput, Error>;
using ProcessCompletion = std::move_only_function<void(ProcessRunResult)>;

// Runs system programs. Standard input is /dev/null; standard output and error are captured.
// Any thread may call run(); the completion runs on the main loop exactly once. Blocking waits
// happen on the loop's workers, never on the loop.
class ProcessRunner {
 public:
  virtual ~ProcessRunner() = default;

  virtual void run(ProcessCommand command, ProcessCompletion completion) = 0;

  // Starts a program that should outlive this process (a relaunch helper) and does not wait for
  // it: it gets its own session, and its output goes to /dev/null. Fails only when it cannot be
  // started.
  [[nodiscard]] virtual std::expected<void, Error> launchDetached(std::vector<std::string> argv) = 0;
};

// A readable one-line form of a command for logs and messages: arguments with spaces or quotes are
// shown in double quotes. For people only; it is never executed.
inline std::string describeCommand(const std::vector<std::string>& argv) {
  std::string line;
  for (const auto& arg : argv) {
    if (!line.empty()) line += ' ';
    const bool plain = !arg.empty() && arg.find_first_of(" \t\n\"'\\") == std::string::npos;
    if (plain) {
      line += arg;
      continue;
    }
    line += '"';
    for (char c : arg) {
      if (c == '"' || c == '\\') line += '\\';
      line += c;
    }
    line += '"';
  }
  return line;
}

}  // namespace norvik
