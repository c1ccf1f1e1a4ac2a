#pragma once

// The screens against a scripted agent, on the offscreen platform: what they show, what a click
// sends, and that every control can be reached and named.
#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QJsonArray>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <QTest>
#include <algorithm>

#include "gui/dialogs.h"
#include "gui/home_page.h"
#include "gui/main_window.h"
#include "gui/pages.h"
#include "gui/style.h"
#include "gui/tests/scripted_agent.h"
#include "gui/toggle_button.h"
#include "gui/tray.h"

namespace norvik::gui {
inline QJsonObject home(const QString& tunnel, const QString& text) {
  return QJsonObject{{"tunnel", tunnel},
                     {"tunnelText", text},
                     {"server", "198.51.100.7"},
                     {"serverName", "de-fra-1"},
                     {"location", "Германия, Франкфурт"},
                     {"configured", true},
                     {"operation", "none"},
                     {"switchLocked", false}};
}

inline QJsonObject dialog(const QString& id) {
  return QJsonObject{{"id", id},
                     {"kind", "dialog"},
                     {"identifier", "modes_full_mode_confirm"},
                     {"title", "Весь трафик через VPN?"},
                     {"message", "Все сайты будут открываться через VPN."},
                     {"buttons", QJsonArray{QJsonObject{{"index", 0}, {"title", "Включить"}},
                                            QJsonObject{{"index", 1}, {"title", "Отмена"}}}},
                     {"choice", QJsonValue::Null}};
}

class ViewsTest : public QObject {
  Q_OBJECT

 private slots:
  void init() {
    agent_ = std::make_unique<testing::ScriptedAgent>();
    QVERIFY(agent_->listen());
    agent_->publish("home", home("disconnected", "Отключено"));
    agent_->publish("mode",
                    QJsonObject{{"mode", "smart"},
                                {"showModeTab", true},
                                {"allowed", QJsonArray{QJsonObject{{"mode", "smart"}, {"label", "Умный"}},
                                                       QJsonObject{{"mode", "full"}, {"label", "Весь трафик"}}}}});
    link_ = std::make_unique<AgentLink>(agent_->socketPath());
    models_ = std::make_unique<Models>(*link_);
    window_ = std::make_unique<MainWindow>(*models_);
    window_->show();
    link_->start();
    QTRY_VERIFY(models_->home.reachable());
  }
  void cleanup() {
    window_.reset();
    models_.reset();
    link_.reset();
    agent_.reset();
  }

  void home_showsTheStateAndTheToggleAsksTheAgent() {
    HomePage* page = window_->homePage();
    QTRY_COMPARE(page->stateText(), QString("Отключено"));
    QCOMPARE(page->serverText(), QString("Германия, Франкфурт"));
    QCOMPARE(page->toggle()->look(), PowerToggle::Look::off);
    QCOMPARE(page->toggle()->accessibleName(), QString("Подключить VPN"));
    QTest::mouseClick(page->toggle(), Qt::LeftButton);
    QTRY_COMPARE(agent_->lastRequest().value("command").toString(), QString("toggle"));

    agent_->publish("home", home("connected", "Защищено"));
    QTRY_COMPARE(page->stateText(), QString("Защищено"));
    QCOMPARE(page->toggle()->look(), PowerToggle::Look::on);
    QCOMPARE(page->toggle()->accessibleName(), QString("Отключить VPN"));

    QJsonObject locked = home("disconnected", "Отключено");
    locked["switchLocked"] = true;
    agent_->publish("home", locked);
    QTRY_VERIFY(!page->toggle()->isEnabled());
  }

  void overlay_dialogBlocksTheWindowUntilAnswered() {
    agent_->publish("overlay", dialog("overlay-7"));
    OverlayLayer* layer = window_->overlay();
    QTRY_VERIFY(layer->dialogShown());
    QCOMPARE(layer->dialogTitle(), QString("Весь трафик через VPN?"));
    QCOMPARE(layer->buttons().size(), 2);
    QVERIFY(!window_->homePage()->toggle()->isEnabled() || !window_->homePage()->toggle()->isEnabledTo(window_.get()));
    QTest::mouseClick(layer->buttons().at(1), Qt::LeftButton);
    QTRY_COMPARE(agent_->lastRequest(), (QJsonObject{{"command", "answer"}, {"id", "overlay-7"}, {"button", 1}}));

    agent_->publish(
        "overlay",
        QJsonObject{{"id", "overlay-8"}, {"kind", "toast"}, {"message", "Режим: Умный"}, {"buttons", QJsonArray()}});
    QTRY_VERIFY(!layer->dialogShown());
    QCOMPARE(layer->toastText(), QString("Режим: Умный"));
    QVERIFY(window_->homePage()->toggle()->isEnabledTo(window_.get()));
  }

  void prompt_forcedShowsOnlyItsMainButton() {
    agent_->publish("overlay", dialog("overlay-9"));
    agent_->publish("prompt", QJsonObject{{"id", "prompt-2"},
                                          {"kind", "forced"},
                                          {"title", "Требуется обновление"},
                                          {"message", "Установите новую версию."},
                                          {"mainButton", "Обновить сейчас"},
                                          {"laterButton", QJsonValue::Null}});
    OverlayLayer* layer = window_->overlay();
    QTRY_COMPARE(layer->dialogTitle(), QString("Требуется обновление"));  // before the queued dialog
    QCOMPARE(layer->buttons().size(), 1);
    QCOMPARE(layer->buttons().first()->text(), QString("Обновить сейчас"));
    QTest::mouseClick(layer->buttons().first(), Qt::LeftButton);
    QTRY_COMPARE(agent_->lastRequest().value("button").toString(), QString("main"));
    agent_->publish("prompt", QJsonValue::Null);
    QTRY_COMPARE(layer->dialogTitle(), QString("Весь трафик через VPN?"));
  }

  void modeAndSites_clicksBecomeRequests() {
    window_->showScreen(MainWindow::Screen::mode);
    const auto radio = [this](const QString& title) -> QRadioButton* {
      for (QRadioButton* button : window_->modePage()->findChildren<QRadioButton*>()) {
        if (button->text() == title && button->isVisible() && button->height() > 0) return button;
      }
      return nullptr;
    };
    QTRY_VERIFY(radio("Весь трафик") != nullptr);
    QRadioButton* full = radio("Весь трафик");
    QTest::mouseClick(full, Qt::LeftButton, {}, QPoint(12, full->height() / 2));  // on its circle
    QTRY_COMPARE(agent_->lastRequest(), (QJsonObject{{"command", "mode"}, {"set", "full"}, {"dialog", true}}));

    agent_->publish("sites", QJsonObject{{"allowCustomDomains", true}, {"canAddDomain", true}});
    agent_->reply("sites", QJsonObject{{"ok", false},
                                       {"code", "failed"},
                                       {"error", QJsonObject{{"message", "Некорректный адрес сайта"}}}});
    window_->showScreen(MainWindow::Screen::sites);
    SitesPage* sites = window_->sitesPage();
    QTRY_VERIFY(sites->field()->isEnabled());
    sites->field()->insert("плохой адрес");  // as an input method types it (keyClicks takes ASCII only)
    QTest::keyClick(sites->field(), Qt::Key_Return);
    QTRY_COMPARE(agent_->lastRequest().value("value").toString(), QString("плохой адрес"));
    QTRY_VERIFY(!sites->findChildren<QLabel*>("fieldError").isEmpty() &&
                sites->findChildren<QLabel*>("fieldError").first()->text() == "Некорректный адрес сайта");
    QCOMPARE(sites->field()->text(), QString("плохой адрес"));  // kept for correcting
  }

  void tray_isTheAgentsMenu() {
    agent_->publish(
        "menu",
        QJsonObject{
            {"title", "Norvik — Отключено"},
            {"items",
             QJsonArray{QJsonObject{{"index", 0}, {"title", "Подключить"}, {"action", "connect"}, {"enabled", true}},
                        QJsonObject{{"index", 1},
                                    {"title", "Запускать при входе в систему"},
                                    {"action", "toggleLaunchAtLogin"},
                                    {"enabled", true},
                                    {"checked", false}}}}});
    Tray tray(models_->menu);
    QTRY_COMPARE(tray.menu()->actions().first()->text(), QString("Norvik — Отключено"));
    QList<QAction*> actions = tray.menu()->actions();
    QCOMPARE(actions.at(2)->text(), QString("Подключить"));
    QVERIFY(actions.at(3)->isCheckable() && !actions.at(3)->isChecked());
    QCOMPARE(actions.last()->text(), QString("Выйти из Norvik"));
    actions.at(2)->trigger();
    QTRY_COMPARE(agent_->lastRequest(), (QJsonObject{{"command", "menu"}, {"item", 0}}));
    QSignalSpy quit(&tray, &Tray::quitRequested);
    actions.last()->trigger();
    QCOMPARE(quit.count(), 1);
    QVERIFY(agent_->requests().size() == 1);  // quitting tells the agent nothing: the tunnel stays
  }

  void tray_iconFollowsTheTunnelAndAClickOpensTheWindow() {
    Tray tray(models_->menu);
    auto centre = [&tray] { return tray.icon()->icon().pixmap(64, 64).toImage().pixelColor(10, 32); };
    agent_->publish(
        "menu",
        QJsonObject{{"title", "Norvik — Отключено"},
                    {"items", QJsonArray{QJsonObject{
                                  {"index", 0}, {"title", "Подключить"}, {"action", "connect"}, {"enabled", true}}}}});
    QTRY_COMPARE(tray.icon()->toolTip(), QString("Norvik — Отключено"));
    QCOMPARE(centre(), colors::kIdle);
    agent_->publish(
        "menu", QJsonObject{{"title", "Norvik — Защищено"},
                            {"items",
                             QJsonArray{QJsonObject{
                                 {"index", 0}, {"title", "Отключить"}, {"action", "disconnect"}, {"enabled", true}}}}});
    QTRY_COMPARE(tray.icon()->toolTip(), QString("Norvik — Защищено"));
    QCOMPARE(centre(), colors::kProtected);
    QCOMPARE(tray.icon()->contextMenu(), tray.menu());

    QSignalSpy open(&models_->menu, &MenuModel::openWindow);
    emit tray.icon()->activated(QSystemTrayIcon::Context);
    QCOMPARE(open.count(), 0);
    emit tray.icon()->activated(QSystemTrayIcon::Trigger);
    QCOMPARE(open.count(), 1);
  }

  void everyControl_isNamedAndReachableByTab() {
    for (const MainWindow::Screen screen : {MainWindow::Screen::home, MainWindow::Screen::mode,
                                            MainWindow::Screen::sites, MainWindow::Screen::settings}) {
      window_->showScreen(screen);
      for (QAbstractButton* button : window_->findChildren<QAbstractButton*>()) {
        if (!button->isVisibleTo(window_.get())) continue;
        const QString name = button->accessibleName().isEmpty() ? button->text() : button->accessibleName();
        QVERIFY2(!name.isEmpty(), qPrintable(button->metaObject()->className()));
        // A member of an exclusive group (the side bar, the modes) is reached as radio buttons
        // are: Tab stops at one member of the group, the arrow keys move within it.
        bool reachable = (button->focusPolicy() & Qt::TabFocus) != 0;
        if (button->group() != nullptr && button->group()->exclusive()) {
          const QList<QAbstractButton*> members = button->group()->buttons();
          reachable = std::any_of(members.begin(), members.end(),
                                  [](QAbstractButton* member) { return (member->focusPolicy() & Qt::TabFocus) != 0; });
        }
        QVERIFY2(reachable, qPrintable(name));
      }
    }
  }

 private:
  std::unique_ptr<testing::ScriptedAgent> agent_;
  std::unique_ptr<AgentLink> link_;
  std::unique_ptr<Models> models_;
  std::unique_ptr<MainWindow> window_;
};

}  // namespace norvik::gui
