#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/process_runner.h"

namespace norvik::testing {

// A process runner whose programs are scripted per program path. Every command line is recorded
// in order. A program with no script behaves as on a machine that lacks it: the run fails to start
// with ENOENT, exactly as posix_spawn reports it. Completions come on the loop after `latency` of
// loop time, like the real runner's.
class ScriptedProcessRunner final : public ProcessRunner {
 public:
  using Script = std::function<ProcessRunResult(const std::vector<std::string>& argv)>;

  explicit ScriptedProcessRunner(EventLoop& loop) : loop_(loop) {}

  void run(ProcessCommand command, ProcessCompletion completion) override;
  [[nodiscard]] std::expected<void, Error> launchDetached(std::vector<std::string> argv) override;

  // Scripts the program at `path` (replacing an earlier script of it).
  void on(const std::string& path, Script script) { scripts_[path] = std::move(script); }
  void setLatency(EventLoop::Duration latency) { latency_ = latency; }

  // Every run() command line, in order; launched programs are kept apart.
  [[nodiscard]] const std::vector<std::vector<std::string>>& commands() const { return commands_; }
  [[nodiscard]] const std::vector<std::vector<std::string>>& launched() const { return launched_; }
  // The runs of one program.
  [[nodiscard]] std::vector<std::vector<std::string>> commandsOf(const std::string& path) const;
  // Index of the first run whose argv starts with `prefix`, or -1.
  [[nodiscard]] int indexOf(const std::vector<std::string>& prefix) const;

  // Ready-made results.
  static ProcessRunResult exited(int status, std::string out = {}, std::string err = {});
  static ProcessRunResult missing(const std::string& path);

 private:
  EventLoop& loop_;
  std::map<std::string, Script> scripts_;
  EventLoop::Duration latency_{};
  std::vector<std::vector<std::string>> commands_;
  std::vector<std::vector<std::string>> launched_;
};

}  // namespace norvik::testing
