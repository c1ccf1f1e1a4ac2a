// Accepting a GeoIP list of 50 000 CIDRs (about 800 KB) and writing it as the cache file, against
// the floor every cache write pays: the same bytes written to a temporary file, fsync, rename.
//   build-release/bench/geoip_cache_bench --benchmark_repetitions=10 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <fmt/format.h>

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
  const std::string temporary = (dir / "floor.tmp").string();
  const std::string target = (dir / "floor.txt").string();
  for (auto _ : state) {
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    std::size_t done = 0;
    while (fd >= 0 && done < body.size()) {
      const ssize_t n = ::write(fd, body.data() + done, body.size() - done);
      if (n < 0 && errno != EINTR) break;
      if (n > 0) done += static_cast<std::size_t>(n);
    }
    bool ok = fd >= 0 && done == body.size() && ::fsync(fd) == 0 && ::close(fd) == 0 &&
              ::rename(temporary.c_str(), target.c_str()) == 0;
    if (state.range(0) == 1) {
      // With the directory fsync that makes the rename itself durable, as the cache write does.
      const int directory = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      ok = ok && directory >= 0 && ::fsync(directory) == 0 && ::close(directory) == 0;
    }
    if (!ok) state.SkipWithError("the floor write failed");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}
BENCHMARK(BM_Floor_WriteFsyncRename)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace norvik

BENCHMARK_MAIN();
