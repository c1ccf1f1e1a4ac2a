#pragma once

// The view models against a scripted agent speaking the management interface over a real socket.
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLockFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <cstdio>

#include "gui/agent_link.h"
#include "gui/home_model.h"
#include "gui/overlay_model.h"
#include "gui/routing_models.h"
#include "gui/settings_models.h"
#include "gui/single_instance.h"
#include "gui/tests/scripted_agent.h"
#include "gui/update_model.h"
#include "gui/widget_bridge.h"

namespace norvik::gui {
inline QJsonObject connectedHome() {
  return QJsonObject{{"tunnel", "connected"},
                     {"tunnelText", "Защищено"},
                     {"intent", "on"},
                     {"state", "connected"},
                     {"server", "203.0.113.10"},
                     {"serverName", "nl-ams-1"},
                     {"location", "Нидерланды, Амстердам"},
                     {"configured", true},
                     {"operation", "none"},
                     {"busy", QJsonValue::Null},
                     {"lastError", QJsonValue::Null},
                     {"health", "Соединение в порядке"},
                     {"healthRaw", "ok"},
                     {"switchLocked", false},
                     {"permissionCard", QJsonValue::Null},
                     {"approvalCard", QJsonValue::Null},
                     {"modeLabel", "Умный"}};
}

class ModelsTest : public QObject {
  Q_OBJECT

 private slots:
  void init() {
    agent_ = std::make_unique<testing::ScriptedAgent>();
    QVERIFY(agent_->listen());
    agent_->publish("home", connectedHome());
    link_ = std::make_unique<AgentLink>(agent_->socketPath());
  }
  void cleanup() {
    link_.reset();
    agent_.reset();
  }

  void home_showsTheAgentsStateAndFollowsItsChanges() {
    HomeModel home(*link_);
    QCOMPARE(home.stateText(), QString("Нет связи с агентом"));
    QVERIFY(!home.toggleEnabled());
    link_->start();
    QTRY_VERIFY(home.reachable());
    QCOMPARE(home.stateText(), QString("Защищено"));
    QCOMPARE(home.toggleState(), HomeModel::Toggle::on);
    QCOMPARE(home.location(), QString("Нидерланды, Амстердам"));
    QCOMPARE(home.serverDetail(), QString("nl-ams-1 · 203.0.113.10"));
    QCOMPARE(home.health(), HomeModel::Health::ok);
    QVERIFY(home.canChangeServer());

    QJsonObject changing = connectedHome();
    changing["operation"] = "serverChange";
    changing["busy"] = "Меняем сервер…";
    changing["lastError"] = QJsonObject{{"title", "Ошибка"}, {"message", "Сервер недоступен"}};
    changing["switchLocked"] = true;
    changing["permissionCard"] = QJsonObject{{"title", "Разрешите VPN-подключение"}};
    // A key the backend did not name: the address alone.
    changing["serverName"] = QJsonValue::Null;
    changing["location"] = QJsonValue::Null;
    QSignalSpy changed(&home, &HomeModel::changed);
    agent_->publish("home", changing);
    QTRY_COMPARE(home.busyText(), QString("Меняем сервер…"));
    QVERIFY(home.location().isEmpty());
    QCOMPARE(home.serverDetail(), QString("203.0.113.10"));
    QCOMPARE(home.toggleState(), HomeModel::Toggle::busy);
    QVERIFY(!home.canChangeServer());
    QVERIFY(!home.toggleEnabled());
    QCOMPARE(home.lastError(), (Card{"Ошибка", "Сервер недоступен"}));
    QCOMPARE(home.permissionCard().title, QString("Разрешите VPN-подключение"));
    QVERIFY(!home.approvalCard().shown());

    agent_->publish(
        "extension",
        QJsonObject{{"state", "needsReboot"},
                    {"banner", QJsonObject{{"title", "Нужна перезагрузка"}, {"message", "Перезагрузите компьютер."}}}});
    QTRY_COMPARE(home.extensionBanner().title, QString("Нужна перезагрузка"));
    QVERIFY(changed.count() >= 2);
  }

  void home_toggleAndChangeServer_sayWhatTheAgentAnswered() {
    HomeModel home(*link_);
    link_->start();
    QTRY_VERIFY(home.reachable());

    // Success speaks through the state and the agent's toast, not a second time here.
    agent_->reply("change-server", QJsonObject{{"ok", true}, {"message", "Сервер сменён"}});
    home.changeServer();
    QTRY_COMPARE(agent_->lastRequest().value("command").toString(), QString("change-server"));
    QTest::qWait(20);
    QCOMPARE(home.replyText(), QString());

    agent_->reply("toggle",
                  QJsonObject{{"ok", false},
                              {"code", "failed"},
                              {"error", QJsonObject{{"title", "Нет сети"}, {"message", "Проверьте интернет"}}}});
    home.toggle();
    QCOMPARE(home.replyText(), QString());  // cleared while the request runs
    QTRY_COMPARE(home.replyText(), QString("Нет сети. Проверьте интернет"));

    // A refusal the home screen already shows as the last error is not said twice.
    QJsonObject failed = connectedHome();
    failed["lastError"] = QJsonObject{{"title", "Нет сети"}, {"message", "Проверьте интернет"}};
    agent_->publish("home", failed);
    QTRY_COMPARE(home.lastError().title, QString("Нет сети"));
    home.toggle();
    QSignalSpy requested(agent_.get(), &testing::ScriptedAgent::requested);
    QVERIFY(requested.wait());
    QTest::qWait(0);
    QTRY_COMPARE(home.replyText(), QString());

    // The user's own later word replaced the request: nothing to report.
    agent_->reply("toggle", QJsonObject{{"ok", false},
                                        {"code", "superseded"},
                                        {"error", QJsonObject{{"title", ""}, {"message", "Команда отменена"}}}});
    home.toggle();
    QVERIFY(requested.wait());
    QTRY_COMPARE(home.replyText(), QString());
  }

  void link_agentGoneAndBack_resubscribesAndSaysSo() {
    HomeModel home(*link_);
    link_->start(50);
    QTRY_VERIFY(home.reachable());
    agent_->stop();
    QTRY_VERIFY(!home.reachable());
    QCOMPARE(home.stateText(), QString("Нет связи с агентом"));
    home.toggle();  // answered by the link itself
    QTRY_VERIFY(home.replyText().contains("не запущен"));
    QVERIFY(agent_->listen());
    QTRY_VERIFY(home.reachable());
    QCOMPARE(home.stateText(), QString("Защищено"));
  }

  void link_openWindowEvent_reachesTheMenuModel() {
    MenuModel menu(*link_);
    QSignalSpy open(&menu, &MenuModel::openWindow);
    link_->start();
    QTRY_VERIFY(link_->subscribed());
    agent_->openWindow();
    QTRY_COMPARE(open.count(), 1);
  }

  void overlay_dialogsAndToastsInTheAgentsOrder() {
    OverlayModel overlay(*link_);
    agent_->publish("overlay", QJsonObject{
                                   {"id", "overlay-3"},
                                   {"kind", "dialog"},
                                   {"identifier", "settings_smart_mode_disable"},
                                   {"title", "Выключить умный режим?"},
                                   {"message", "Весь трафик пойдёт через VPN."},
                                   {"buttons", QJsonArray{QJsonObject{{"index", 0}, {"title", "Выключить"}},
                                                          QJsonObject{{"index", 1}, {"title", "Оставить"}}}},
                                   {"choice", QJsonObject{{"title", "Больше не показывать"}}},
                                   {"waiting", 1},
                               });
    link_->start();
    QTRY_COMPARE(overlay.kind(), OverlayModel::Kind::dialog);
    QCOMPARE(overlay.buttons(), (QList<OverlayButton>{{0, "Выключить"}, {1, "Оставить"}}));
    QCOMPARE(overlay.choice(), QString("Больше не показывать"));
    QCOMPARE(overlay.waiting(), 1);

    overlay.answer(0, true);
    QTRY_COMPARE(agent_->requests().size(), 1);
    QCOMPARE(agent_->lastRequest(),
             (QJsonObject{{"command", "answer"}, {"id", "overlay-3"}, {"button", 0}, {"dontShowAgain", true}}));

    agent_->publish("overlay", QJsonObject{{"id", "overlay-4"},
                                           {"kind", "toast"},
                                           {"title", ""},
                                           {"message", "Сервер сменён"},
                                           {"buttons", QJsonArray()},
                                           {"choice", QJsonValue::Null},
                                           {"waiting", 0}});
    QTRY_COMPARE(overlay.kind(), OverlayModel::Kind::toast);
    QVERIFY(overlay.buttons().isEmpty());
    QVERIFY(overlay.choice().isEmpty());
    agent_->publish("overlay", QJsonValue::Null);
    QTRY_COMPARE(overlay.kind(), OverlayModel::Kind::none);
  }

  void prompt_forcedHasNoLater_andAMainButtonPageIsOpened() {
    PromptModel prompt(*link_);
    QSignalSpy openUrl(&prompt, &PromptModel::openUrl);
    agent_->publish("prompt", QJsonObject{{"id", "prompt-1"},
                                          {"kind", "forced"},
                                          {"title", "Обновите приложение"},
                                          {"message", "Эта версия больше не поддерживается."},
                                          {"mainButton", "Обновить сейчас"},
                                          {"laterButton", QJsonValue::Null},
                                          {"installsInApp", false}});
    agent_->reply("answer", QJsonObject{{"ok", true}, {"openURL", "https://norvik.example/download"}});
    link_->start();
    QTRY_VERIFY(prompt.shown());
    QVERIFY(prompt.forced());
    QVERIFY(prompt.laterButton().isEmpty());
    prompt.chooseMain();
    QTRY_COMPARE(openUrl.count(), 1);
    QCOMPARE(openUrl.first().first().toString(), QString("https://norvik.example/download"));
    QCOMPARE(agent_->lastRequest().value("button").toString(), QString("main"));

    // "Не сейчас" of an ordinary prompt opens nothing.
    agent_->reply("answer", QJsonObject{{"ok", true}});
    prompt.chooseLater();
    QTRY_COMPARE(agent_->lastRequest().value("button").toString(), QString("later"));
    QCOMPARE(openUrl.count(), 1);
    agent_->publish("prompt", QJsonValue::Null);
    QTRY_VERIFY(!prompt.shown());
  }

  void mode_choicesAndTheFullModesConfirmationThroughTheQueue() {
    ModeModel mode(*link_);
    agent_->publish("mode", QJsonObject{
                                {"mode", "smart"},
                                {"label", "Умный"},
                                {"showModeTab", true},
                                {"forced", QJsonValue::Null},
                                {"notice", QJsonValue::Null},
                                {"disclaimer", "Сайты из списка открываются через VPN."},
                                {"allowed", QJsonArray{QJsonObject{{"mode", "smart"}, {"label", "Умный"}},
                                                       QJsonObject{{"mode", "full"}, {"label", "Весь трафик"}},
                                                       QJsonObject{{"mode", "services"}, {"label", "По сайтам"}}}},
                            });
    link_->start();
    QTRY_VERIFY(mode.tabShown());
    QCOMPARE(mode.choices().size(), 3);
    QCOMPARE(mode.choices().at(2), (ModeChoice{"services", "По сайтам", ""}));
    QVERIFY(!mode.forced());

    agent_->reply("mode", QJsonObject{{"ok", false}, {"code", "confirm"}});
    mode.choose("full");
    QTRY_COMPARE(agent_->requests().size(), 1);
    QCOMPARE(agent_->lastRequest(), (QJsonObject{{"command", "mode"}, {"set", "full"}, {"dialog", true}}));
    QTest::qWait(20);
    QVERIFY(mode.errorText().isEmpty());  // the dialog shows in the overlay queue, not as an error

    mode.choose("smart");  // already in force: nothing to ask
    agent_->reply("mode", QJsonObject{{"ok", false},
                                      {"code", "failed"},
                                      {"error", QJsonObject{{"title", ""}, {"message", "Режим недоступен"}}}});
    mode.choose("services");
    QTRY_COMPARE(mode.errorText(), QString("Режим недоступен"));
    QCOMPARE(agent_->requests().size(), 2);

    agent_->publish("mode",
                    QJsonObject{{"mode", "full"}, {"forced", "full"}, {"notice", "Режим настроен провайдером"}});
    QTRY_VERIFY(mode.forced());
    QCOMPARE(mode.notice(), QString("Режим настроен провайдером"));
  }

  void sites_refusalStaysBesideTheFieldUntilADomainIsTaken() {
    SitesModel sites(*link_);
    agent_->publish("sites",
                    QJsonObject{
                        {"services", QJsonArray{QJsonObject{{"key", "youtube"}, {"title", "YouTube"}, {"on", true}}}},
                        {"domains", QJsonArray{QJsonObject{{"domain", "пример.рф"}, {"on", false}}}},
                        {"allowCustomDomains", true},
                        {"canAddDomain", true},
                        {"emptyScreen", QJsonValue::Null},
                        {"vpnOffNote", QJsonObject{{"title", "VPN выключен"}, {"message", "Включите VPN"}}},
                        {"texts", QJsonObject{{"domainPlaceholder", "Введите адрес сайта"}}},
                    });
    link_->start();
    QTRY_COMPARE(sites.services().size(), 1);
    QCOMPARE(sites.domains().first(), (DomainRow{"пример.рф", false}));
    QCOMPARE(sites.vpnOffTitle(), QString("VPN выключен"));
    QCOMPARE(sites.text("domainPlaceholder"), QString("Введите адрес сайта"));

    agent_->reply(
        "sites", QJsonObject{{"ok", false},
                             {"code", "failed"},
                             {"error", QJsonObject{{"title", "Свои сайты"}, {"message", "Некорректный адрес сайта"}}}});
    sites.addDomain("не домен");
    QTRY_COMPARE(sites.fieldError(), QString("Некорректный адрес сайта"));  // without the card's title
    QCOMPARE(sites.fieldText(), QString("не домен"));

    agent_->reply("sites", QJsonObject{{"ok", true}});
    sites.addDomain("  кино.рф ");
    QTRY_VERIFY(sites.fieldError().isEmpty());
    QVERIFY(sites.fieldText().isEmpty());
    QCOMPARE(agent_->lastRequest(), (QJsonObject{{"command", "sites"}, {"action", "add"}, {"value", "кино.рф"}}));

    sites.setService("youtube", false);
    QTRY_COMPARE(agent_->lastRequest().value("action").toString(), QString("off"));
    sites.setDomain("пример.рф", true);
    QTRY_COMPARE(agent_->lastRequest().value("action").toString(), QString("enable"));
    sites.removeDomain("пример.рф");
    QTRY_COMPARE(agent_->lastRequest().value("action").toString(), QString("remove"));
  }

  void update_stepsAndTheirButtons() {
    UpdateModel update(*link_);
    agent_->publish("updater", QJsonObject{{"state", "available"},
                                           {"text", "Доступна версия 2.0"},
                                           {"version", "2.0"},
                                           {"button", "Обновить сейчас"},
                                           {"laterButton", "Не сейчас"},
                                           {"dismissible", true},
                                           {"releaseNotes", "Быстрее подключение"},
                                           {"canCheck", true}});
    link_->start();
    QTRY_COMPARE(update.state(), QString("available"));
    QCOMPARE(update.installButton(), QString("Обновить сейчас"));
    QCOMPARE(update.laterButton(), QString("Не сейчас"));
    QCOMPARE(update.progress(), -1);
    QCOMPARE(update.releaseNotes(), QString("Быстрее подключение"));
    update.install();
    QTRY_COMPARE(agent_->lastRequest(), (QJsonObject{{"command", "update"}, {"action", "install"}}));

    agent_->publish("updater",
                    QJsonObject{{"state", "downloading"}, {"received", 512}, {"total", 2048}, {"canCheck", true}});
    QTRY_COMPARE(update.progress(), 250);
    QVERIFY(!update.indeterminate());
    QVERIFY(update.canCancel());
    QVERIFY(!update.canCheck());
    QVERIFY(update.installButton().isEmpty());

    agent_->publish("updater", QJsonObject{{"state", "downloading"}, {"received", 512}, {"total", QJsonValue::Null}});
    QTRY_VERIFY(update.indeterminate());
    agent_->publish("updater", QJsonObject{{"state", "extracting"}, {"progress", 0.5}});
    QTRY_COMPARE(update.progress(), 500);
    agent_->publish("updater",
                    QJsonObject{{"state", "available"}, {"dismissible", false}, {"laterButton", "Не сейчас"}});
    QTRY_COMPARE(update.state(), QString("available"));
    QVERIFY(update.laterButton().isEmpty());  // a forced release cannot be put off
    agent_->publish("updater", QJsonObject{{"state", "idle"}, {"releaseNotesLoading", true}, {"canCheck", true}});
    QTRY_VERIFY(update.canCheck());
    QCOMPARE(update.releaseNotes(), QString("Загружаем описание версии…"));
  }

  void menuAndSettings_launchAtLoginAndTheSmartModeSwitch() {
    MenuModel menu(*link_);
    SettingsModel settings(*link_, menu);
    QSignalSpy open(&menu, &MenuModel::openWindow);
    agent_->publish("menu", QJsonObject{
                                {"title", "Norvik — Защищено"},
                                {"items",
                                 QJsonArray{
                                     QJsonObject{{"index", 0},
                                                 {"title", "Отключить"},
                                                 {"action", "disconnect"},
                                                 {"enabled", true},
                                                 {"checked", QJsonValue::Null}},
                                     QJsonObject{{"index", 1},
                                                 {"title", "Запускать при входе в систему"},
                                                 {"action", "toggleLaunchAtLogin"},
                                                 {"enabled", true},
                                                 {"checked", true}},
                                     QJsonObject{{"index", 2},
                                                 {"title", "Открыть Norvik"},
                                                 {"action", "openMainWindow"},
                                                 {"enabled", true},
                                                 {"checked", QJsonValue::Null}},
                                     QJsonObject{{"index", 3},
                                                 {"title", "Загрузка обновления…"},
                                                 {"action", "installUpdate"},
                                                 {"enabled", false},
                                                 {"checked", QJsonValue::Null}},
                                 }},
                            });
    agent_->publish(
        "mode", QJsonObject{{"mode", "smart"},
                            {"allowed", QJsonArray{QJsonObject{{"mode", "smart"}}, QJsonObject{{"mode", "full"}}}}});
    agent_->publish("links", QJsonObject{{"support", "https://t.me/norvik_support"}, {"showCompany", true}});
    link_->start();
    QTRY_COMPARE(menu.title(), QString("Norvik — Защищено"));
    const QList<MenuItem> items = menu.items();
    QCOMPARE(items.size(), 4);
    QVERIFY(items.at(1).checkable && items.at(1).checked);
    QVERIFY(!items.at(0).checkable);
    QVERIFY(!items.at(3).enabled);
    QVERIFY(settings.launchAtLogin());
    QVERIFY(settings.smartModeOn());
    QVERIFY(settings.smartModeOffered());
    QVERIFY(settings.showCompany());

    settings.setLaunchAtLogin(true);  // already on: nothing sent
    settings.setLaunchAtLogin(false);
    QTRY_COMPARE(agent_->requests().size(), 1);
    QCOMPARE(agent_->lastRequest(), (QJsonObject{{"command", "menu"}, {"item", 1}}));

    menu.choose(2);
    QCOMPARE(open.count(), 1);  // at once, before the agent answers
    QTRY_COMPARE(agent_->requests().size(), 2);

    agent_->reply("smart-mode", QJsonObject{{"ok", false}, {"code", "confirm"}});
    settings.setSmartMode(false);
    QTRY_COMPARE(agent_->lastRequest(), (QJsonObject{{"command", "smart-mode"}, {"enabled", false}, {"dialog", true}}));
    QTest::qWait(20);
    QVERIFY(settings.errorText().isEmpty());
  }

  void singleInstance_aSecondLaunchRaisesTheFirstAndADeadOwnerIsReplaced() {
    const QString run = agent_->home() + "/run-gui";
    {
      // A predecessor that died: its lock names a process that is gone, its socket file is left.
      QProcess gone;
      gone.start("true", {});
      QVERIFY(gone.waitForStarted());
      const qint64 pid = gone.processId();
      QVERIFY(gone.waitForFinished());
      QVERIFY(QDir().mkpath(run));
      QFile stale(run + "/gui.lock");
      QVERIFY(stale.open(QIODevice::WriteOnly));
      stale.write(QByteArray::number(pid) + "\ngui_models_test\n" + QSysInfo::machineHostName().toUtf8() + "\n");
      QFile leftover(run + "/gui.sock");
      QVERIFY(leftover.open(QIODevice::WriteOnly));
    }
    auto first = std::make_unique<SingleInstance>(run);
    QCOMPARE(first->claim(true), SingleInstance::Claim::first);
    QSignalSpy activated(first.get(), &SingleInstance::activated);

    SingleInstance second(run);
    QCOMPARE(second.claim(true, 1000), SingleInstance::Claim::handedOver);
    QTRY_COMPARE(activated.count(), 1);
    // A launch at login finds it running and leaves the window where it is.
    SingleInstance atLogin(run);
    QCOMPARE(atLogin.claim(false, 1000), SingleInstance::Claim::handedOver);
    QTest::qWait(50);
    QCOMPARE(activated.count(), 1);

    // The first ends: the next launch is the application.
    first.reset();
    SingleInstance next(run);
    QCOMPARE(next.claim(true), SingleInstance::Claim::first);
  }

  void singleInstance_aLiveOwnerThatDoesNotAnswerIsNotWaitedForLong() {
    const QString run = agent_->home() + "/run-gui";
    QVERIFY(QDir().mkpath(run));
    QLockFile held(run + "/gui.lock");
    QVERIFY(held.tryLock(0));
    SingleInstance late(run);
    QElapsedTimer waited;
    waited.start();
    QCOMPARE(late.claim(true, 300), SingleInstance::Claim::unanswered);
    QVERIFY(waited.elapsed() < 2000);
  }

  void widgetBridge_readsOnlyOnAStatePostAndLeavesCommandsThroughFiles() {
    WidgetBridge bridge(agent_->home());
    QSignalSpy changed(&bridge, &WidgetBridge::changed);
    const QString container = agent_->home() + "/group/QX7RT2LM9A.com.norvik.macos";
    QVERIFY(QDir().mkpath(container));
    auto writeState = [&](const QJsonObject& state) {
      QFile file(container + "/widget-state.json");
      QVERIFY(file.open(QIODevice::WriteOnly));
      file.write(QJsonDocument(state).toJson());
    };
    writeState(QJsonObject{{"phase", "connected"},
                           {"statusText", "Защищено"},
                           {"canToggle", true},
                           {"trafficDown", "1,2 МБ"},
                           {"healthRaw", "ok"}});
    // As the application posts: a finished file renamed over the name.
    auto postState = [&](const QByteArray& content) {
      const QString name = bridge.notificationDirectory() + "/com.norvik.macos.widget.state";
      QFile temporary(name + ".tmp");
      QVERIFY(temporary.open(QIODevice::WriteOnly));
      temporary.write(content);
      temporary.close();
      QVERIFY(std::rename(QFile::encodeName(name + ".tmp").constData(), QFile::encodeName(name).constData()) == 0);
    };
    bridge.start();
    QCOMPARE(changed.count(), 1);
    QCOMPARE(bridge.statusText(), QString("Защищено"));
    QCOMPARE(bridge.trafficDown(), QString("1,2 МБ"));

    // The command and its post.
    QVERIFY(bridge.send("toggle"));
    QFile commandFile(bridge.commandFile());
    QVERIFY(commandFile.open(QIODevice::ReadOnly));
    const QJsonObject command = QJsonDocument::fromJson(commandFile.readAll()).object();
    QCOMPARE(command.value("kind").toString(), QString("toggle"));
    QVERIFY(!command.value("id").toString().isEmpty());
    QVERIFY(command.value("issuedAt").toString().endsWith('Z'));
    QVERIFY(QFile::exists(bridge.notificationDirectory() + "/com.norvik.macos.widget.command"));

    // A new state without its post is not read; its post makes it shown.
    writeState(QJsonObject{{"phase", "disconnected"}, {"statusText", "Отключено"}, {"canToggle", true}});
    QTest::qWait(50);
    QCOMPARE(bridge.statusText(), QString("Защищено"));
    postState("1\n");
    QTRY_COMPARE(bridge.statusText(), QString("Отключено"));

    // A damaged state file leaves the last good state on screen.
    QFile damaged(container + "/widget-state.json");
    QVERIFY(damaged.open(QIODevice::WriteOnly));
    // NOLINTNEXTLINE(modernize-raw-string-literal): moc cannot read a raw string in a class body
    damaged.write("{\"phase\": \"conn");
    damaged.close();
    postState("22\n");
    QTest::qWait(50);
    QCOMPARE(bridge.phase(), QString("disconnected"));
  }

  void link_garbageAndForeignLinesAreIgnored() {
    link_->start();
    QTRY_VERIFY(link_->subscribed());
    QSignalSpy topics(link_.get(), &AgentLink::topicChanged);
    agent_->publish("future-topic", QJsonObject{{"x", 1}});
    QTRY_COMPARE(topics.count(), 1);
    QCOMPARE(link_->object("future-topic").value("x").toInt(), 1);
  }

 private:
  std::unique_ptr<testing::ScriptedAgent> agent_;
  std::unique_ptr<AgentLink> link_;
};

}  // namespace norvik::gui
