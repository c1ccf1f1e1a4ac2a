// Decoding a main configuration into the typed models, against parsing the same bytes into a
// JSON tree alone (the floor: every decoder has to read the JSON).
#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "backend/api_response.h"
#include "testing/test_data.h"

namespace norvik {
namespace {

// The realistic document grown to about `bytes` the way real ones grow: more routing services
// with their domain and CIDR lists, more FAQ entries and a longer payment history.
std::string documentOfSize(std::size_t bytes) {
  auto doc = nlohmann::json::parse(testing::readTestData("main_response.json"));
  auto& services = doc["main"]["routing"]["services"];
  auto& faq = doc["faq"];
  auto& payments = doc["sub_panel"]["payment_history"];
  for (int i = 0; doc.dump().size() < bytes; ++i) {
    nlohmann::json service = {{"key", "service" + std::to_string(i)},
                              {"title", "Сервис " + std::to_string(i)},
                              {"subtitle", "Видео, звонки и сообщения"},
                              {"color", "#10A37F"},
                              {"default_on", i % 3 == 0},
                              {"has_list", true},
                              {"domains", nlohmann::json::array()},
                              {"cidr", nlohmann::json::array()}};
    for (int d = 0; d < 8; ++d)
      service["domains"].push_back("cdn" + std::to_string(d) + ".service" + std::to_string(i) + ".com");
    for (int c = 0; c < 16; ++c)
      service["cidr"].push_back(std::to_string(10 + c) + "." + std::to_string(i % 250) + ".0.0/16");
    services.push_back(std::move(service));
    faq.push_back({{"q", "Вопрос номер " + std::to_string(i) + ": почему не открывается сайт?"},
                   {"a", "Попробуйте сменить сервер или включить Умный режим — российские сайты пойдут напрямую."}});
    payments.push_back({{"payment_id", "p-" + std::to_string(i)},
                        {"date", 1766361600 + i},
                        {"amount", "299 ₽"},
                        {"amount_rub", 299.0},
                        {"status", "paid"}});
  }
  return doc.dump();
}

void BM_DecodeMainConfiguration(benchmark::State& state) {
  const std::string body = documentOfSize(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto response = decodeAPIResponse(body);
    if (!response) state.SkipWithError(response.error().c_str());
    benchmark::DoNotOptimize(response);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}
BENCHMARK(BM_DecodeMainConfiguration)->Arg(60 << 10)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);

void BM_Floor_ParseJsonTree(benchmark::State& state) {
  const std::string body = documentOfSize(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto tree = nlohmann::json::parse(body, nullptr, false);
    benchmark::DoNotOptimize(tree);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body.size()));
}
BENCHMARK(BM_Floor_ParseJsonTree)->Arg(60 << 10)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace norvik

BENCHMARK_MAIN();
