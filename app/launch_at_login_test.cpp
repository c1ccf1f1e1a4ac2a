// The menu bar's "Запускать при входе в систему" switches the system's login item, through the
// whole application on virtual time.
#include <gtest/gtest.h>

#include <algorithm>

#include "testing/agent_host.h"

namespace norvik {
namespace {

const MenuBarItem& launchAtLoginItem(Application& app) {
  const auto& items = app.menuBar().menu().get().items;
  const auto found = std::ranges::find_if(
      items, [](const MenuBarItem& item) { return item.action == MenuBarItem::Action::toggleLaunchAtLogin; });
  if (found == items.end()) throw std::runtime_error("no launch-at-login item in the menu");
  return *found;
}

TEST(LaunchAtLoginTest, TheMenuSwitchWritesTheLoginItemAndShowsWhatTheSystemSays) {
  testing::AgentHost host;
  Application& app = host.app();
  EXPECT_EQ(launchAtLoginItem(app).title, "Запускать при входе в систему");
  EXPECT_EQ(launchAtLoginItem(app).checked, true) << "the package's login entry is on";

  app.menuBar().choose(launchAtLoginItem(app));
  EXPECT_FALSE(host.loginItem().isEnabled());
  EXPECT_EQ(launchAtLoginItem(app).checked, false);
  EXPECT_TRUE(host.log().contains("[App] запуск при входе в систему: выкл"));

  // A write the system refuses leaves the switch where the system says it is.
  host.loginItem().failWrites = true;
  app.menuBar().choose(launchAtLoginItem(app));
  EXPECT_EQ(launchAtLoginItem(app).checked, false);
  EXPECT_TRUE(host.log().contains("[App] запуск при входе в систему: не удалось"));

  host.loginItem().failWrites = false;
  app.menuBar().choose(launchAtLoginItem(app));
  EXPECT_TRUE(host.loginItem().isEnabled());
  EXPECT_EQ(launchAtLoginItem(app).checked, true);
  EXPECT_EQ(host.loginItem().writes, 3);
}

}  // namespace
}  // namespace norvik
