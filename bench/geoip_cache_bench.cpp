// Accepting a GeoIP list of 50 000 CIDRs (about 800 KB) and writing it as the cache file, against
// the floor every cache write pays: the same bytes written to a temporary file, fsync, rename.
//   build-release/bench/geoip_cache_bench --benchmark_repetitions=10 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <string>

#include <fmt/format.h>

#include "bench/floor_write.h"
#include "routing/geoip_cache.h"
#include "routing/geoip_payload.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

constexpr std::size_t kEntries = 50'000;

// Ranges shaped like the real list: mostly /16 to /24 across the address space, ~16 bytes a line.
const std::string& realisticList() {
  static const std::string text = [] {
    std::string out;
    for (std::size_t i = 0; i < kEntries; ++i) {
      fmt::format_to(std::back_inserter(out), "{}.{}.{}.0/{}\n", 100 + i % 123, (i * 7) % 256, (i * 13) % 256,
                     16 + i % 9);
    }
    return out;
  }();
  return text;
}

void BM_AcceptAndWriteGeoIPList(benchmark::State& state) {
  testing::TempDir dir;
  const std::string& body = realisticList();
  for (auto _ : state) {
    auto list = acceptGeoIPPayload(body);
    if (!list || list->cidrCount != kEntries) state.SkipWithError("the list was not accepted");
    auto outcome = writeGeoIPCacheFile(dir.path(), *list);
    if (outcome.status != GeoIPWriteStatus::written) state.SkipWithError("the list was not written");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}
BENCHMARK(BM_AcceptAndWriteGeoIPList)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_AcceptGeoIPList(benchmark::State& state) {
  const std::string& body = realisticList();
  for (auto _ : state) {
    auto list = acceptGeoIPPayload(body);
    benchmark::DoNotOptimize(list);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}
BENCHMARK(BM_AcceptGeoIPList)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Floor_WriteFsyncRename(benchmark::State& state) {
  testing::TempDir dir;
  const std::string& body = realisticList();
  for (auto _ : state) {
    // With Arg 1 also the directory fsync, as the cache write does.
    if (!bench::writeFsyncRename(dir / "floor.txt", body, state.range(0) == 1)) {
      state.SkipWithError("the floor write failed");
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}
BENCHMARK(BM_Floor_WriteFsyncRename)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace norvik

BENCHMARK_MAIN();
