#include "routing/geoip_cache.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/files.h"
#include "platform/text.h"
#include "routing/geoip_payload.h"
#include "routing/routing_test_environment.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;

// `count` distinct IPv4 CIDRs, one a line.
std::string cidrList(std::size_t count, int firstOctet = 1) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    fmt::format_to(std::back_inserter(text), "{}.{}.{}.0/24\n", firstOctet + static_cast<int>(i / 65536),
                   (i / 256) % 256, i % 256);
  }
  return text;
}

// A comment line that brings a body past the size gate; the reader skips it.
std::string padding() { return "# " + std::string(kGeoIPMinimumPayloadBytes, '-') + "\n"; }
// `count` CIDRs as the backend serves a list: with the rest of the body a full list has.
std::string servedList(std::size_t count, int firstOctet = 1) { return cidrList(count, firstOctet) + padding(); }

std::string readBack(const std::filesystem::path& path) { return readFile(path).value_or("<unreadable>"); }

TEST(GeoIPPayloadTest, PlainTextKeepsTheCidrsAndLeavesOutWhatIsNot) {
  const std::string body =
      "# Russian ranges\r\n2.56.88.0/22\r\n\r\n  5.8.0.0/19  \n999.1.1.1/8\n10.0.0.0/33\n"
      "2a00:1fa0::/29\nexample.com\n" +
      servedList(1000, 20);
  auto list = acceptGeoIPPayload(body);
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->format, GeoIPPayloadFormat::plainText);
  EXPECT_EQ(list->cidrCount, 1003u);
  EXPECT_EQ(list->malformedCount, 3u);
  EXPECT_EQ(list->firstMalformed, "999.1.1.1/8");
  EXPECT_TRUE(list->text.starts_with("2.56.88.0/22\n5.8.0.0/19\n2a00:1fa0::/29\n20.0.0.0/24\n"));
  EXPECT_TRUE(list->text.ends_with("\n"));
}

TEST(GeoIPPayloadTest, AJsonEnvelopeCarriesTheListAsCidrsOrAsData) {
  nlohmann::json cidrs = nlohmann::json::array();
  for (int i = 0; i < 1000; ++i) cidrs.push_back(fmt::format("31.{}.{}.0/24", i / 256, i % 256));
  cidrs.push_back(42);
  auto asArray = acceptGeoIPPayload(nlohmann::json{{"version", "v9"}, {"cidrs", cidrs}, {"comment", padding()}}.dump());
  ASSERT_TRUE(asArray.has_value());
  EXPECT_EQ(asArray->format, GeoIPPayloadFormat::jsonEnvelope);
  EXPECT_EQ(asArray->cidrCount, 1000u);
  EXPECT_EQ(asArray->malformedCount, 1u);

  auto asText = acceptGeoIPPayload(nlohmann::json{{"data", servedList(1200)}}.dump());
  ASSERT_TRUE(asText.has_value());
  EXPECT_EQ(asText->cidrCount, 1200u);
  EXPECT_EQ(asText->text, cidrList(1200));
}

TEST(GeoIPPayloadTest, RefusesJsonWithoutTheListAndBodiesTooSmallForIt) {
  const std::string spaces(kGeoIPMinimumPayloadBytes, ' ');
  for (const std::string& body : {std::string(R"({"error":"maintenance"})"), R"({"cidrs":[]})" + spaces,
                                  R"({"data":"   "})" + spaces, "[\"1.0.0.0/8\"]" + spaces, "{broken" + spaces}) {
    auto refused = acceptGeoIPPayload(body);
    ASSERT_FALSE(refused.has_value()) << body.substr(0, 30);
    EXPECT_EQ(refused.error().reason, GeoIPRejection::jsonWithoutCidrs) << body.substr(0, 30);
    EXPECT_EQ(refused.error().bytes, body.size());
  }
  auto small = acceptGeoIPPayload(cidrList(100));
  ASSERT_FALSE(small.has_value());
  EXPECT_EQ(small.error().reason, GeoIPRejection::tooSmall);
  EXPECT_EQ(small.error().bytes, cidrList(100).size());
}

TEST(GeoIPPayloadTest, ACutOffBodyWithAThousandRangesIsTooSmallToBeTheList) {
  // Enough entries for the cache, far too few bytes for the list the backend serves.
  const std::string truncated = cidrList(5000);
  ASSERT_LT(truncated.size(), kGeoIPMinimumPayloadBytes);
  auto refused = acceptGeoIPPayload(truncated);
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error().reason, GeoIPRejection::tooSmall);

  // The shortest lines of a thousand entries, in a body of the list's size, are written.
  std::string shortest;
  for (int i = 0; i < 1000; ++i) shortest += "1.0.0.0/8\n";
  auto list = acceptGeoIPPayload(shortest + padding());
  ASSERT_TRUE(list.has_value());
  testing::TempDir dir;
  EXPECT_EQ(writeGeoIPCacheFile(dir.path(), *list).status, GeoIPWriteStatus::written);
}

TEST(GeoIPPayloadTest, RecognisesCidrs) {
  for (auto good : {"0.0.0.0/0", "255.255.255.255/32", "10.0.0.0/8", "::/0", "2001:db8::/128", "::ffff:1.2.3.4/96"}) {
    EXPECT_TRUE(isCidr(good)) << good;
  }
  for (auto bad : {"10.0.0.0", "10.0.0.0/", "/8", "10.0.0/8", "10.0.0.0/33", "2001:db8::/129", "10.0.0.0/08",
                   "10.0.0.0/8/8", "010.0.0.0/8", "10.0.0.0/-1", "1.2.3.4 /8", "a.b.c.d/8", "2001:db8:::/64"}) {
    EXPECT_FALSE(isCidr(bad)) << bad;
  }
}

TEST(GeoIPPayloadTest, KeepsExactlyTheLinesThatAreCidrsWhateverTheirForm) {
  // The quick path for plain IPv4 lines and the general one must agree, line by line.
  const std::vector<std::string> lines = {
      "1.2.3.4/8",   "1.2.3.04/8",  "256.1.1.1/8", "255.255.255.255/32", "1.2.3.4/33",   "1.2.3.4/08",  "1.2.3.4/0",
      "1.2.3/8",     "1.2.3.4.5/8", "1.2.3.4/",    "1234.1.1.1/8",       "0.0.0.0/0",    "00.1.1.1/8",  "1.2.3.4/3a",
      "1..3.4/8",    "9.9.9.9/100", "2a00::/16",   " 7.7.7.0/24",        "8.8.8.0/24\r", "1.2.3.4/32 ", "",
      "# 5.5.5.0/24"};
  std::string body = padding();  // a comment, past the size gate
  std::string expected;
  for (const std::string& line : lines) {
    body += line + "\n";
    const auto trimmed = trimWhitespace(line);
    if (isCidr(trimmed)) expected += std::string(trimmed) + "\n";
  }
  body += cidrList(1000) + "9.8.7.0/24";  // the last line without its newline
  expected += cidrList(1000) + "9.8.7.0/24\n";
  auto list = acceptGeoIPPayload(body);
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->text, expected);
  EXPECT_EQ(list->cidrCount, static_cast<std::size_t>(std::ranges::count(expected, '\n')));
}

class GeoIPCacheTest : public ::testing::Test, protected testing::RoutingEnvironment {
 protected:
  GeoIPCacheTest() { group.setBool(GeoIPCache::kPushedToExtensionKey, true); }

  void announce(const std::string& version) {
    auto response = std::make_shared<APIResponse>();
    response->main.geoipVersion = version;
    response->main.geoBypassEnabled = true;
    publish(response);
    loop.runUntil([&] { return !cache.isDownloading(); });
  }
  void serve(std::string body) {
    endpoints["geoip"] = [body = std::move(body)](const HttpRequest&) { return ok(body); };
  }
  [[nodiscard]] std::string cached() const { return readBack(cache.cacheFile()); }

  GeoIPCache cache{loop, group, network, geodata(), log};
};

TEST_F(GeoIPCacheTest, TheSameVersionIsDownloadedOnce) {
  serve(servedList(1500));
  announce("2025-06-01");
  EXPECT_TRUE(log.hasLine("[GeoIP] backend response: geo_bypass_enabled=true, geoip_version=2025-06-01"));
  EXPECT_TRUE(log.hasLine("[GeoIP] version changed (stored=none, new=2025-06-01) — downloading /geoip"));
  EXPECT_TRUE(log.hasLine("[GeoIP][cache] wrote 1500 CIDRs, backendVersion=2025-06-01"));
  EXPECT_TRUE(log.hasLine("[GeoIP] cache refreshed: 1500 CIDRs, backendVersion=2025-06-01"));
  EXPECT_EQ(cached(), cidrList(1500));
  EXPECT_EQ(group.stringValue(GeoIPCache::kBackendVersionKey), "2025-06-01");
  EXPECT_EQ(group.boolValue(GeoIPCache::kPushedToExtensionKey), false);  // the new file has not reached the tunnel
  EXPECT_FALSE(std::filesystem::exists(geodata() / "geoip_cache.tmp"));

  announce("2025-06-01");
  EXPECT_TRUE(log.hasLine("[GeoIP] version unchanged (2025-06-01)"));
  EXPECT_EQ(sends["geoip"], 1);

  // A version whose file is gone is downloaded again.
  std::filesystem::remove(cache.cacheFile());
  announce("2025-06-01");
  EXPECT_EQ(sends["geoip"], 2);
}

TEST_F(GeoIPCacheTest, ListsOf999AreRefusedAndOf1000Written) {
  serve(servedList(999));
  announce("v999");
  EXPECT_TRUE(log.hasLine("[GeoIP][cache] reject: only 999 CIDRs (backendVersion=v999) — keeping old cache"));
  EXPECT_FALSE(std::filesystem::exists(cache.cacheFile()));
  EXPECT_FALSE(group.contains(GeoIPCache::kBackendVersionKey));

  serve(servedList(1000));
  announce("v1000");
  EXPECT_EQ(cached(), cidrList(1000));
  EXPECT_EQ(group.stringValue(GeoIPCache::kBackendVersionKey), "v1000");
}

TEST_F(GeoIPCacheTest, AFailedVersionIsSkippedForTheRunWhileANewOneIsTried) {
  endpoints["geoip"] = [](const HttpRequest&) -> HttpResult {
    return std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::cannotConnect));
  };
  announce("v1");
  EXPECT_EQ(sends["geoip"], 4);  // the client's own retries
  EXPECT_TRUE(log.contains("[GeoIP] download of version v1 failed: NETWORK_ERROR"));

  announce("v1");
  EXPECT_TRUE(log.hasLine("[GeoIP] version v1 already failed this session — skip"));
  EXPECT_EQ(sends["geoip"], 4);

  serve(servedList(1200));
  announce("v2");
  EXPECT_EQ(sends["geoip"], 5);
  EXPECT_EQ(group.stringValue(GeoIPCache::kBackendVersionKey), "v2");
}

TEST_F(GeoIPCacheTest, AVersionAnnouncedDuringADownloadIsCheckedAfterIt) {
  serve(servedList(1000));
  transport.setLatency(1s);
  auto response = std::make_shared<APIResponse>();
  response->main.geoipVersion = "v1";
  publish(response);
  auto newer = std::make_shared<APIResponse>();
  newer->main.geoipVersion = "v2";
  publish(newer);
  ASSERT_TRUE(loop.runUntil([&] { return group.stringValue(GeoIPCache::kBackendVersionKey) == "v2"; }));
  EXPECT_EQ(sends["geoip"], 2);
}

TEST_F(GeoIPCacheTest, ATooSmallPayloadIsRefusedWithItsSize) {
  const std::string body = cidrList(300);
  serve(body);
  announce("v1");
  EXPECT_TRUE(log.hasLine(fmt::format("[/geoip] fetched {}KB plain-text on attempt 0", body.size() / 1024)));
  EXPECT_TRUE(log.hasLine(fmt::format(
      "[GeoIP] applyBackendData rejected payload (backend returned {} bytes, expected 400KB+ plaintext CIDR list)",
      body.size())));
  EXPECT_TRUE(cache.failedVersions().contains("v1"));
}

TEST_F(GeoIPCacheTest, AJsonBodyWithoutTheListIsDumpedAndFails) {
  const std::string body = R"({"status":"maintenance",)"
                           "\n"
                           R"("message":")" +
                           std::string(600, 'x') + "\"}";
  serve(body);
  announce("v1");
  const std::string dump = (R"({"status":"maintenance", "message":")" + std::string(600, 'x')).substr(0, 400);
  EXPECT_TRUE(
      log.hasLine(fmt::format("[/geoip] attempt 0: JSON response ({} bytes) без CIDR — dump: {}", body.size(), dump)));
  EXPECT_TRUE(cache.failedVersions().contains("v1"));
}

TEST_F(GeoIPCacheTest, TheLogNamesTheAttemptThatBroughtTheList) {
  int calls = 0;
  const std::string body = servedList(2000);
  endpoints["geoip"] = [&](const HttpRequest&) -> HttpResult {
    if (++calls == 1) return std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::timedOut));
    return ok(body);
  };
  announce("v1");
  EXPECT_TRUE(log.hasLine(fmt::format("[/geoip] fetched {}KB plain-text on attempt 1", body.size() / 1024)));
}

// --- Interrupted writes, against real files ---

TEST_F(GeoIPCacheTest, AFailedRenameLeavesNoTemporaryFileAndStoresNoVersion) {
  ASSERT_TRUE(makeDirectories(cache.cacheFile() / "in-the-way"));
  serve(servedList(1000));
  announce("v1");
  EXPECT_TRUE(log.contains("[GeoIP][cache] atomic write failed: "));
  EXPECT_FALSE(std::filesystem::exists(geodata() / "geoip_cache.tmp"));
  EXPECT_FALSE(group.contains(GeoIPCache::kBackendVersionKey));
  EXPECT_TRUE(cache.failedVersions().contains("v1"));
}

TEST(GeoIPCacheFileTest, AFullDiskLeavesThePreviousFileWhole) {
  testing::TempDir dir;
  const std::string previous = cidrList(1000);
  ASSERT_EQ(writeGeoIPCacheFile(dir.path(), *acceptGeoIPPayload(previous + padding())).status,
            GeoIPWriteStatus::written);

  auto next = acceptGeoIPPayload(servedList(5000, 100));
  ASSERT_TRUE(next.has_value());
  // A file-size limit makes the kernel stop the write part-way, as a full disk does.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto* savedHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = saved;
  small.rlim_cur = 16 * 1024;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const GeoIPWriteOutcome outcome = writeGeoIPCacheFile(dir.path(), *next);
  ::setrlimit(RLIMIT_FSIZE, &saved);
  (void)std::signal(SIGXFSZ, savedHandler);

  EXPECT_EQ(outcome.status, GeoIPWriteStatus::failed);
  ASSERT_TRUE(outcome.error.has_value());
  EXPECT_EQ(outcome.error->code, EFBIG);
  EXPECT_EQ(readBack(dir / "geoip_cache.txt"), previous);
  EXPECT_FALSE(std::filesystem::exists(dir / "geoip_cache.tmp"));
}

TEST(GeoIPCacheFileTest, AProcessKilledMidWriteLeavesOneWholeFile) {
  testing::TempDir dir;
  const std::string first = cidrList(1000);
  const std::string second = cidrList(40000, 100);
  const auto firstList = *acceptGeoIPPayload(first + padding());
  const auto secondList = *acceptGeoIPPayload(second);
  ASSERT_EQ(writeGeoIPCacheFile(dir.path(), firstList).status, GeoIPWriteStatus::written);

  // A writer that alternates the two lists is killed at a few arbitrary moments; every time the
  // file is one of them in full.
  for (auto delay : {1ms, 7ms, 23ms}) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int i = 0;; ++i) (void)writeGeoIPCacheFile(dir.path(), i % 2 == 0 ? secondList : firstList);
    }
    std::this_thread::sleep_for(delay);  // real time: the writer is a real process
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    const std::string found = readBack(dir / "geoip_cache.txt");
    EXPECT_TRUE(found == first || found == second) << "a torn file of " << found.size() << " bytes";
  }
  // A temporary file left by the killed writer does not stand in the way of the next write.
  EXPECT_EQ(writeGeoIPCacheFile(dir.path(), firstList).status, GeoIPWriteStatus::written);
  EXPECT_EQ(readBack(dir / "geoip_cache.txt"), first);
  EXPECT_FALSE(std::filesystem::exists(dir / "geoip_cache.tmp"));
}

}  // namespace
}  // namespace norvik
