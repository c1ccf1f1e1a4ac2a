#pragma once

#include "platform/event_loop.h"
#include "platform/process_runner.h"

namespace norvik {

// Child processes on posix_spawn: no shell, no PATH search (argv[0] is the program's path), the
// environment of this process, standard input from /dev/null. Each run waits on one of the loop's
// workers and completes on the loop. Output beyond 16 MiB a stream is dropped, so a chatty tool
// cannot exhaust memory.
class PosixProcessRunner final : public ProcessRunner {
 public:
  explicit PosixProcessRunner(EventLoop& loop) : loop_(loop) {}

  void run(ProcessCommand command, ProcessCompletion completion) override;
  [[nodiscard]] std::expected<void, Error> launchDetached(std::vector<std::string> argv) override;

  // The blocking run itself, for callers that are already off the loop.
  [[nodiscard]] static ProcessRunResult runNow(const ProcessCommand& command);

 private:
  EventLoop& loop_;
};

}  // namespace norvik
