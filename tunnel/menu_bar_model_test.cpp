#include "tunnel/menu_bar_model.h"

#include <gtest/gtest.h>

#include "platform/simulated_tunnel_service.h"
#include "testing/fake_named_notifications.h"
#include "testing/fakes.h"
#include "tunnel/vpn_manager.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Action = MenuBarItem::Action;

class MenuBarModelTest : public ::testing::Test {
 protected:
  MenuBarModelTest() {
    vpn_.start();
    loop_.runUntilIdle();
  }

  std::vector<std::string> itemTitles() {
    std::vector<std::string> titles;
    for (const auto& item : model_.menu().get().items) titles.push_back(item.title);
    return titles;
  }
  const MenuBarItem& item(Action action) {
    for (const auto& i : model_.menu().get().items) {
      if (i.action == action) return i;
    }
    throw std::runtime_error("no such item");
  }

  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::CapturingLog log_;
  testing::CapturingAnalytics analytics_;
  testing::MemoryDefaults group_;
  testing::MemoryDefaults standard_;
  testing::FakeNamedNotifications notifications_{loop_};
  SimulatedTunnelService tunnels_{loop_, clock_, log_, &notifications_, {}};
  VPNManager vpn_{{loop_, tunnels_, notifications_, group_, standard_, clock_, log_, analytics_, {}}};
  std::vector<std::string> handled_;
  MenuBarModel model_{vpn_,
                      {[this] { handled_.emplace_back("connect"); }, [this] { handled_.emplace_back("disconnect"); },
                       [this](bool on) { handled_.emplace_back(on ? "login on" : "login off"); },
                       [this] { handled_.emplace_back("open"); }, [this] { handled_.emplace_back("update"); }}};
};

TEST_F(MenuBarModelTest, TheTitleAndTheFirstItemFollowTheTunnel) {
  EXPECT_EQ(model_.menu().get().title, "Norvik — Отключено");
  EXPECT_EQ(itemTitles(), (std::vector<std::string>{"Подключить", "Запускать при входе в систему", "Открыть Norvik"}));

  std::vector<std::pair<std::string, std::string>> seen;  // title, first item
  auto watch = model_.menu().subscribe([&](const MenuBarMenu& m) {
    seen.emplace_back(m.title, m.items.front().title + (m.items.front().enabled ? "" : " (off)"));
  });
  std::optional<std::expected<void, Error>> done;
  vpn_.installKey("[Interface]\nPrivateKey = a2V5\n[Peer]\nEndpoint = 203.0.113.10:51820", [&](auto r) { done = r; });
  loop_.runUntil([&] { return done.has_value(); });
  vpn_.connect([](auto) {});
  loop_.advance(1s);
  vpn_.disconnect();
  loop_.advance(1s);

  EXPECT_EQ(seen, (std::vector<std::pair<std::string, std::string>>{
                      {"Norvik — Подключение...", "Отключить"},
                      {"Norvik — Защищено", "Отключить"},
                      {"Norvik — Отключение...", "Подключить"},
                      {"Norvik — Отключено", "Подключить"},
                  }));
}

TEST_F(MenuBarModelTest, TheUpdateItemFollowsWhatTheUpdaterKnows) {
  model_.setUpdateFacts({true, "2.4.0", false});
  EXPECT_EQ(itemTitles().back(), "Обновить до 2.4.0");
  EXPECT_TRUE(item(Action::installUpdate).enabled);

  model_.setUpdateFacts({true, "2.4.0", true});
  EXPECT_EQ(itemTitles().back(), "Загрузка обновления…");
  EXPECT_FALSE(item(Action::installUpdate).enabled);

  model_.setUpdateFacts({true, std::nullopt, false});
  EXPECT_EQ(itemTitles().back(), "Обновить приложение");

  model_.setUpdateFacts({});
  EXPECT_EQ(itemTitles().size(), 3u);
}

TEST_F(MenuBarModelTest, ChoosingAnItemRunsItsHandlerUnlessItIsDisabled) {
  model_.setLaunchAtLogin(true);
  EXPECT_EQ(item(Action::toggleLaunchAtLogin).checked, true);
  model_.choose(item(Action::toggleLaunchAtLogin));
  model_.choose(item(Action::connect));
  model_.choose(item(Action::openMainWindow));
  model_.setUpdateFacts({true, "2.4.0", true});
  model_.choose(item(Action::installUpdate));
  EXPECT_EQ(handled_, (std::vector<std::string>{"login off", "connect", "open"}));
}

}  // namespace
}  // namespace norvik
