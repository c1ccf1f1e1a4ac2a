// Any bytes as what a local client writes on the agent's control socket. The real socket, its
// line framing and refusals, ControlCommands and the whole application (virtual time, the
// simulated tunnel, a scripted backend) take them; then:
// - every line the agent writes is a JSON object: a progress or status line ("event") or an
//   answer ("ok" true or false, a false one with its "code");
// - every request line is answered exactly once, within the longest command's time limit, except
//   a "watch", which runs until the client hangs up, and a connection the agent refused and closed;
// - once the client hangs up, no session is left behind.
//
// Each input meets a fresh agent (a few milliseconds): an input is a session of its own, from a
// fresh start, and reproduces alone; everything it allocates is freed by its end, so the leak
// check means something. Several lines in one input are several commands in one session.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "testing/agent_host.h"

namespace {

using norvik::testing::AgentHost;
using Json = nlohmann::json;

// Longer than the longest command's own limit (a server change, 120 s).
constexpr auto kAnswerLimit = norvik::ControlCommands::kIntentLimit + std::chrono::seconds(10);

[[noreturn]] void fail(std::string_view what, std::string_view detail) {
  (void)std::fprintf(stderr, "control_request: %.*s: %.*s\n", static_cast<int>(what.size()), what.data(),
                     static_cast<int>(detail.size()), detail.data());
  std::abort();
}

// The lines the agent will read as requests: those ended by a newline.
std::vector<std::string_view> requestLines(std::string_view bytes) {
  std::vector<std::string_view> lines;
  for (std::size_t end; (end = bytes.find('\n')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
    lines.push_back(bytes.substr(0, end));
  }
  return lines;
}

bool isWatch(std::string_view line) {
  const Json request = Json::parse(line, nullptr, false);
  return request.is_object() && request.contains("command") && request["command"] == "watch";
}

// Checks one line the agent wrote; true for an answer, false for an event.
bool checkLine(const Json& line) {
  if (!line.is_object()) fail("a line that is not a JSON object", line.dump());
  if (line.contains("event")) {
    if (line.contains("ok") || !line["event"].is_string()) fail("a malformed event", line.dump());
    return false;
  }
  const auto ok = line.find("ok");
  if (ok == line.end() || !ok->is_boolean()) fail("a line that is neither an event nor an answer", line.dump());
  if (!ok->get<bool>()) {
    const auto code = line.find("code");
    if (code == line.end() || (*code != "failed" && *code != "usage" && *code != "confirm")) {
      fail("a refusal without its code", line.dump());
    }
  }
  return true;
}

}  // namespace

// The agent's home goes under the temporary directory. The widget's state is written with an
// fsync a few times an input; in memory that costs nothing.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the fuzzer has started no thread yet
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  AgentHost host;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string_view> lines = requestLines(bytes);

  norvik::testing::ControlConnection& client = host.connect();
  client.write(bytes);
  std::size_t answers = 0;
  auto collect = [&] {
    for (const Json& line : client.takeAnswers()) {
      if (checkLine(line) && ++answers > lines.size()) fail("more answers than requests", line.dump());
    }
  };
  auto finished = [&] {
    collect();
    return answers == lines.size() || client.closedByServer() || isWatch(lines[answers]);
  };

  // Each request is answered within the limit after the one before it.
  for (;;) {
    const std::size_t before = answers;
    if (host.runUntil(finished, kAnswerLimit)) break;
    if (answers == before) fail("a request went unanswered", lines[answers]);
  }
  // Nothing answers twice, even after every time limit has passed.
  const std::size_t settled = answers;
  host.advance(kAnswerLimit);
  collect();
  if (answers != settled) fail("a request was answered twice", bytes.substr(0, 200));

  host.hangUp(client);
  host.settle();
  if (host.server().sessionCount() != 0) fail("a session outlived its client", bytes.substr(0, 200));
  return 0;
}
