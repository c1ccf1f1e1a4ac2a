#include "testing/scripted_process_runner.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace norvik::testing {

void ScriptedProcessRunner::run(ProcessCommand command, ProcessCompletion completion) {
  commands_.push_back(command.argv);
  ProcessRunResult result =
      command.argv.empty() ? std::unexpected(Error{"POSIX", EINVAL, "(empty command)"}) : missing(command.argv.front());
  if (!command.argv.empty()) {
    if (auto it = scripts_.find(command.argv.front()); it != scripts_.end()) result = it->second(command.argv);
  }
  loop_.postAfter(latency_, [completion = std::move(completion), result = std::move(result)]() mutable {
    completion(std::move(result));
  });
}

std::expected<void, Error> ScriptedProcessRunner::launchDetached(std::vector<std::string> argv) {
  if (argv.empty() || !scripts_.contains(argv.front())) {
    return std::unexpected(missing(argv.empty() ? std::string() : argv.front()).error());
  }
  launched_.push_back(std::move(argv));
  return {};
}

std::vector<std::vector<std::string>> ScriptedProcessRunner::commandsOf(const std::string& path) const {
  std::vector<std::vector<std::string>> out;
  for (const auto& c : commands_) {
    if (!c.empty() && c.front() == path) out.push_back(c);
  }
  return out;
}

int ScriptedProcessRunner::indexOf(const std::vector<std::string>& prefix) const {
  for (std::size_t i = 0; i < commands_.size(); ++i) {
    const auto& c = commands_[i];
    if (c.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), c.begin())) return static_cast<int>(i);
  }
  return -1;
}

ProcessRunResult ScriptedProcessRunner::exited(int status, std::string out, std::string err) {
  return ProcessOutput{status, std::move(out), std::move(err)};
}

ProcessRunResult ScriptedProcessRunner::missing(const std::string& path) {
  return std::unexpected(Error{"POSIX", ENOENT, fmt::format("{}: {}", path, std::strerror(ENOENT))});
}

}  // namespace norvik::testing
