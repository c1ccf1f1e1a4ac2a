#include "health/device_clock_check.h"

#include <thread>

#include <gtest/gtest.h>

#include "backend/network_service.h"
#include "health/http_date.h"
#include "testing/backend_environment.h"
#include "testing/fake_clock_change_source.h"
#include "testing/http_fakes.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using std::chrono::seconds;

Clock::TimePoint at(std::int64_t secondsSince1970) { return Clock::TimePoint{seconds(secondsSince1970)}; }

// The "Date" header a server would send for `moment` (whole seconds).
std::string httpDate(Clock::TimePoint moment) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto day = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date{day};
  const std::chrono::hh_mm_ss time{std::chrono::floor<seconds>(moment - day)};
  return fmt::format("{}, {:02} {} {:04} {:02}:{:02}:{:02} GMT", kDays[std::chrono::weekday{day}.c_encoding()],
                     static_cast<unsigned>(date.day()), kMonths[static_cast<unsigned>(date.month()) - 1],
                     static_cast<int>(date.year()), time.hours().count(), time.minutes().count(),
                     time.seconds().count());
}

TEST(HttpDate, ReadsOnlyTheModernGmtForm) {
  EXPECT_EQ(parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT"), at(784111777));
  EXPECT_EQ(parseHttpDate("Thu, 29 Feb 2024 23:59:59 GMT"), at(1709251199));
  for (const char* bad :
       {"Sun, 06 Nov 1994 08:49:37 UTC", "Sun, 06 nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT",
        "Sun Nov  6 08:49:37 1994", "Sun, 6 Nov 1994 08:49:37 GMT", "Fri, 30 Feb 2024 10:00:00 GMT",
        "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Nov 1994 08:49:60 GMT", "Sun, 06 Nov 1994 08:49:37 GMT ",
        "Xyz, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 19x4 08:49:37 GMT", ""}) {
    EXPECT_FALSE(parseHttpDate(bad).has_value()) << bad;
  }
}

TEST(ClockSkew, IsTheServerMomentAgainstTheMidpointTruncatedTowardZero) {
  const auto sent = at(1'800'000'000);
  // Four seconds on the way: the server stamped its answer at the midpoint, two seconds in.
  EXPECT_EQ(measureClockSkew(httpDate(sent + 2s + 75s), sent, sent + 4s), 75);
  EXPECT_EQ(measureClockSkew(httpDate(sent + 2s - 75s), sent, sent + 4s), -75);
  // 75.9 s behind the midpoint is -75, not -76.
  EXPECT_EQ(measureClockSkew(httpDate(sent - 75s), sent, sent + 1800ms), -75);
  EXPECT_EQ(measureClockSkew(httpDate(sent + 76s), sent + 100ms, sent + 300ms), 75);
  EXPECT_FALSE(measureClockSkew(std::nullopt, sent, sent).has_value());
  EXPECT_FALSE(measureClockSkew("yesterday", sent, sent).has_value());
}

class DeviceClockCheckTest : public ::testing::Test, protected testing::BackendEnvironment {
 protected:
  DeviceClockCheckTest() {
    subscription_ = check.wrong().subscribe([this](const bool& wrong) { published.push_back(wrong); });
  }

  DeviceClockCheck check{loop, log};
  std::vector<bool> published;
  Subscription subscription_;
};

TEST_F(DeviceClockCheckTest, SixtySecondsEitherWayIsWrongAndOnlyAChangeOfVerdictIsLogged) {
  check.reportSkew(59);
  check.reportSkew(-59.9);
  EXPECT_FALSE(check.wrong().get());
  EXPECT_TRUE(log.lines().empty());

  check.reportSkew(-75);
  EXPECT_TRUE(check.wrong().get());
  EXPECT_TRUE(log.hasLine("[Clock] часы устройства сбиты: расхождение -75 с"));
  check.reportSkew(60);  // still wrong: nothing new
  check.reportCertificateOutOfDate();
  EXPECT_EQ(log.count("[Clock]"), 1u);

  check.reportSkew(3);
  EXPECT_TRUE(log.hasLine("[Clock] часы устройства в порядке: расхождение 3 с"));
  check.reportCertificateOutOfDate();
  EXPECT_TRUE(log.hasLine("[Clock] часы устройства сбиты: сертификат сервера вне срока по часам Mac"));
  EXPECT_EQ(published, (std::vector<bool>{true, false, true}));
}

TEST_F(DeviceClockCheckTest, AReportFromAnotherThreadLandsOnTheLoop) {
  std::thread probe([this] { check.reportSkew(-120); });
  probe.join();
  EXPECT_FALSE(check.wrong().get());  // handed over, not applied on the probe's thread
  loop.runUntilIdle();
  EXPECT_TRUE(check.wrong().get());
  EXPECT_TRUE(log.hasLine("[Clock] часы устройства сбиты: расхождение -120 с"));
}

TEST_F(DeviceClockCheckTest, TheBackendClientFeedsItFromDateHeadersAndCertificateFailures) {
  testing::FakeHttpTransport transport(loop);
  transport.setLatency(2s);
  // The server's clock runs 90 s behind ours. The fake answers at send time; the server's stamp is
  // taken as of the midpoint of the two-second exchange.
  transport.setHandler([this](const HttpRequest&) -> HttpResult {
    HttpResponse response = testing::FakeHttpTransport::json(200, "{}");
    response.headers.emplace_back("date", httpDate(clock.now() + 1s - 90s));
    return response;
  });
  NetworkService service(loop, transport, security, defaults, clock, log);
  check.feedFrom(service);

  bool done = false;
  service.send(endpoints::kGetKey, nlohmann::json::object(), [&](NetworkService::BodyResult) { done = true; });
  ASSERT_TRUE(loop.runUntil([&] { return done; }));
  EXPECT_TRUE(log.hasLine("[Clock] часы устройства сбиты: расхождение -90 с"));

  // A TLS failure on an out-of-date certificate, after the clock was back in order.
  check.reportSkew(0);
  transport.setHandler([](const HttpRequest&) -> HttpResult {
    auto failure = testing::FakeHttpTransport::failure(NetworkErrorKind::other, "certificate has expired");
    failure.certificateOutOfDate = true;
    return std::unexpected(failure);
  });
  done = false;
  service.send(endpoints::kGetKey, nlohmann::json::object(), [&](NetworkService::BodyResult) { done = true; });
  ASSERT_TRUE(loop.runUntil([&] { return done; }));
  EXPECT_TRUE(check.wrong().get());
  EXPECT_EQ(log.count("сертификат сервера вне срока по часам Mac"), 1u);
}

TEST_F(DeviceClockCheckTest, TheSystemClockBeingSetIsLoggedAndCountedWhileWatched) {
  testing::FakeClockChangeSource source;
  ASSERT_TRUE(check.watchSystemClock(source));
  std::thread system([&] { source.signalClockChange(); });
  system.join();
  loop.runUntilIdle();
  EXPECT_TRUE(log.hasLine("[Clock] время изменено в системе"));
  EXPECT_EQ(check.systemClockChanges().get(), 1u);
  EXPECT_FALSE(check.wrong().get());  // only a measurement decides that

  check.stopWatchingSystemClock();
  EXPECT_FALSE(source.isStarted());
  source.signalClockChange();
  loop.runUntilIdle();
  EXPECT_EQ(check.systemClockChanges().get(), 1u);

  source.failNextStart(Error{"POSIX", ENODEV, "timerfd: No such device"});
  EXPECT_FALSE(check.watchSystemClock(source));
  EXPECT_EQ(log.count("[Clock] system clock changes not watched: "), 1u);
}

TEST(DeviceClockCheck, AHandOverStillOnTheWayWhenTheCheckIsGoneDoesNothing) {
  testing::VirtualEventLoop loop;
  testing::CapturingLog log;
  {
    DeviceClockCheck check(loop, log);
    std::thread probe([&] { check.reportSkew(500); });
    probe.join();
  }
  loop.runUntilIdle();
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace norvik
