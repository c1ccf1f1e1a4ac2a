// Work done once per user-visible event: normalising a key text (every key the backend hands out
// or the user pastes) and publishing the widget's state (every tunnel status change).
//   build-release/bench/per_operation_bench --benchmark_repetitions=10 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <string>
#include <string_view>

#include "bench/floor_write.h"
#include "platform/files.h"
#include "testing/temp_dir.h"
#include "tunnel/key_text.h"
#include "tunnel/widget_files.h"

namespace norvik {
namespace {

// A key as the backend sends it: Windows line breaks, unspaced "=", stray blank lines.
constexpr std::string_view kKeyText =
    "[Interface]\r\nPrivateKey=yAnz5TF+lXXJte14tji3zlMNq+hd2rYUIgJBgB3fBmk=\r\nAddress=10.8.0.17/32\r\n"
    "DNS=1.1.1.1, 1.0.0.1\r\nMTU=1280\r\n\r\n\r\n[Peer]\r\nPublicKey=xTIBA5rboUvnH4htodjb6e697QjLERt1NAB4mZqp8Dg=\r\n"
    "PresharedKey=FpCyhws9cxwWoV4xELtfJvjJN+zQVRPISllRWgeopVE=\r\nAllowedIPs=0.0.0.0/0, ::/0\r\n"
    "Endpoint=nl-ams-17.norvik.app:51820\r\nPersistentKeepalive=25\r\n";

void BM_NormalizeKeyText(benchmark::State& state) {
  for (auto _ : state) {
    std::string normalized = normalizeKeyText(kKeyText);
    benchmark::DoNotOptimize(normalized);
  }
}
BENCHMARK(BM_NormalizeKeyText);

// The floor: one pass that any normaliser makes — cutting the text into lines and copying them
// into a new string.
void BM_Floor_SplitAndJoinLines(benchmark::State& state) {
  for (auto _ : state) {
    std::string out;
    out.reserve(kKeyText.size());
    std::string_view rest = kKeyText;
    while (!rest.empty()) {
      const auto end = rest.find_first_of("\r\n");
      out.append(rest.substr(0, end));
      out.push_back('\n');
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_Floor_SplitAndJoinLines);

WidgetVPNState connectedState() {
  WidgetVPNState state;
  state.phase = "connected";
  state.connectedSince = Clock::TimePoint(std::chrono::seconds(1'795'000'000));
  state.statusText = "Подключено";
  state.canChangeServer = true;
  state.canToggle = true;
  state.updatedAt = Clock::TimePoint(std::chrono::seconds(1'795'000'600));
  state.healthRaw = "ok";
  state.appRunning = true;
  state.trafficDown = "12.4 МБ";
  state.trafficUp = "1.1 МБ";
  state.tunnelAddress = "nl-ams-17.norvik.app";
  return state;
}

// What publishing costs beyond telling the widget: encoding the state and writing the file
// durably, as the widget must never read half a state.
void BM_PublishWidgetState(benchmark::State& state) {
  testing::TempDir dir;
  const auto file = dir / std::string(kWidgetStateFileName);
  const WidgetVPNState widgetState = connectedState();
  for (auto _ : state) {
    if (!writeFileAtomically(file, encodeWidgetState(widgetState))) state.SkipWithError("the write failed");
  }
}
BENCHMARK(BM_PublishWidgetState)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The floor: the same bytes through a temporary file, fsync, rename and directory fsync.
void BM_Floor_WidgetStateWrite(benchmark::State& state) {
  testing::TempDir dir;
  const std::string bytes = encodeWidgetState(connectedState());
  for (auto _ : state) {
    if (!bench::writeFsyncRename(dir / std::string(kWidgetStateFileName), bytes, true)) {
      state.SkipWithError("the floor write failed");
    }
  }
}
BENCHMARK(BM_Floor_WidgetStateWrite)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace norvik

BENCHMARK_MAIN();
