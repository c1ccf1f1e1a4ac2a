#include "platform/linux/xdg_autostart_login_item.h"

#include <gtest/gtest.h>

#include "platform/files.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

constexpr std::string_view kSystemEntry =
    "[Desktop Entry]\nType=Application\nName=Norvik\nExec=systemctl --user start norvik-agent.service\n";

class XdgAutostartLoginItemTest : public ::testing::Test {
 protected:
  XdgAutostartLoginItem item(std::string userExec = {}) {
    return XdgAutostartLoginItem({dir_ / "home/.config/autostart",
                                  {dir_ / "etc/xdg/autostart", dir_ / "usr/xdg/autostart"},
                                  std::move(userExec)});
  }
  void installSystemEntry(std::string_view text = kSystemEntry) {
    ASSERT_TRUE(makeDirectories(dir_ / "etc/xdg/autostart").has_value());
    ASSERT_TRUE(writeFileAtomically(dir_ / "etc/xdg/autostart" / XdgAutostartLoginItem::kEntryName, text).has_value());
  }
  std::filesystem::path userEntry() const {
    return dir_ / "home/.config/autostart" / XdgAutostartLoginItem::kEntryName;
  }
  std::string userEntryText() const { return readFile(userEntry()).value_or("(none)"); }

  testing::TempDir dir_;
};

TEST_F(XdgAutostartLoginItemTest, SwitchingOffHidesThePackagesEntryForThisUserAndOnRemovesThatAgain) {
  installSystemEntry();
  auto login = item();
  EXPECT_TRUE(login.isEnabled()) << "the package's entry starts Norvik for everyone";

  ASSERT_TRUE(login.setEnabled(false).has_value());
  EXPECT_FALSE(login.isEnabled());
  EXPECT_NE(userEntryText().find("\nHidden=true\n"), std::string::npos) << userEntryText();
  EXPECT_TRUE(readFile(dir_ / "etc/xdg/autostart" / XdgAutostartLoginItem::kEntryName).has_value())
      << "the system's entry is never touched";
  ASSERT_TRUE(login.setEnabled(false).has_value());

  ASSERT_TRUE(login.setEnabled(true).has_value());
  EXPECT_TRUE(login.isEnabled());
  EXPECT_FALSE(std::filesystem::exists(userEntry())) << "nothing of the user's is left when it is on";
  ASSERT_TRUE(login.setEnabled(true).has_value());
  EXPECT_FALSE(std::filesystem::exists(userEntry()));
}

TEST_F(XdgAutostartLoginItemTest, WithoutAnInstalledEntryTheUserGetsAnEntryOfTheirOwn) {
  EXPECT_FALSE(item().isEnabled());
  EXPECT_FALSE(item().setEnabled(true).has_value()) << "nothing to start: a failure, not a silent no-op";
  EXPECT_FALSE(item().isEnabled());

  auto login = item("/home/anna/norvik/build/app/norvik agent");
  ASSERT_TRUE(login.setEnabled(true).has_value());
  EXPECT_TRUE(login.isEnabled());
  EXPECT_NE(userEntryText().find("\nExec=/home/anna/norvik/build/app/norvik agent\n"), std::string::npos);
  ASSERT_TRUE(login.setEnabled(false).has_value());
  EXPECT_FALSE(login.isEnabled());
  EXPECT_EQ(userEntryText().find("Exec="), std::string::npos) << userEntryText();
}

TEST_F(XdgAutostartLoginItemTest, EntriesSwitchedOffByTheDesktopCountAsOff) {
  installSystemEntry(std::string(kSystemEntry) + "X-GNOME-Autostart-enabled=false\n");
  EXPECT_FALSE(item().isEnabled());
  // The desktop's own switch in the user's entry wins over the package's entry.
  ASSERT_TRUE(makeDirectories(userEntry().parent_path()).has_value());
  ASSERT_TRUE(writeFileAtomically(userEntry(), "[Desktop Entry]\nHidden = true\n").has_value());
  EXPECT_FALSE(item().isEnabled());

  EXPECT_TRUE(autostartEntryStarts("[Desktop Entry]\nHidden=false\n"));
  EXPECT_TRUE(autostartEntryStarts("[Desktop Entry]\nName=x\n[Desktop Action stop]\nHidden=true\n"))
      << "only the [Desktop Entry] group counts";
  EXPECT_FALSE(autostartEntryStarts("# comment\n[Desktop Entry]\r\nHidden=true\r\n"));
}

}  // namespace
}  // namespace norvik
