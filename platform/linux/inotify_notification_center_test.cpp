#include "platform/linux/inotify_notification_center.h"

#include <gtest/gtest.h>

#include "testing/temp_dir.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

// Two centres on one directory stand for two processes of the same user.
class InotifyNotificationCenterTest : public ::testing::Test {
 protected:
  std::unique_ptr<InotifyNotificationCenter> open() {
    auto center = InotifyNotificationCenter::open(loop_, dir_ / "notify");
    EXPECT_TRUE(center.has_value());
    return center ? std::move(*center) : nullptr;
  }

  // Runs the loop until `done` holds or two seconds pass.
  bool runUntil(const std::function<bool()>& done) {
    RepeatingTimer check;
    check.start(loop_, 5ms, [&] {
      if (done()) loop_.stop();
    });
    TaskHandle limit = loop_.postAfter(2s, [&] { loop_.stop(); });
    loop_.run();
    limit.cancel();
    return done();
  }

  testing::TempDir dir_;
  AsioEventLoop loop_;
};

TEST_F(InotifyNotificationCenterTest, APostReachesObserversOfThatNameInEveryProcess) {
  auto app = open();
  auto widget = open();
  int appHeard = 0;
  int widgetHeard = 0;
  int otherHeard = 0;
  auto a = app->observe("com.norvik.macos.widget.command", [&] { ++appHeard; });
  auto b = widget->observe("com.norvik.macos.widget.command", [&] { ++widgetHeard; });
  auto c = app->observe("com.norvik.macos.widget.state", [&] { ++otherHeard; });

  widget->post("com.norvik.macos.widget.command");
  EXPECT_TRUE(runUntil([&] { return appHeard == 1 && widgetHeard == 1; }));
  EXPECT_EQ(otherHeard, 0);
}

TEST_F(InotifyNotificationCenterTest, AnEndedSubscriptionHearsNothingMore) {
  auto app = open();
  auto other = open();
  int heard = 0;
  int witness = 0;
  {
    auto subscription = app->observe("com.Quillon.disconnect.vpn", [&] { ++heard; });
  }
  auto keep = other->observe("com.Quillon.disconnect.vpn", [&] { ++witness; });
  app->post("com.Quillon.disconnect.vpn");
  EXPECT_TRUE(runUntil([&] { return witness == 1; }));
  EXPECT_EQ(heard, 0);
}

TEST_F(InotifyNotificationCenterTest, NamesThatCannotBeFilesAreIgnored) {
  auto app = open();
  app->post("../escape");
  app->post(".hidden");
  app->post("");
  EXPECT_FALSE(std::filesystem::exists(dir_ / "escape"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_ / "notify"), std::filesystem::directory_iterator()),
            0);
}

}  // namespace
}  // namespace norvik
