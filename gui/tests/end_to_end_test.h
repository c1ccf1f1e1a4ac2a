#pragma once

// The application with the real agent, the local backend and the simulated tunnel, on the
// offscreen platform: what a user clicks, and what the screens then show.
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QRadioButton>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include "gui/agent_starter.h"
#include "gui/dialogs.h"
#include "gui/home_page.h"
#include "gui/main_window.h"
#include "gui/pages.h"
#include "gui/style.h"
#include "gui/toggle_button.h"
#include "gui/widget_bridge.h"
#include "gui/widget_window.h"

namespace norvik::gui {
inline constexpr int kStepMs = 15000;  // each step waits for the agent at most this long

inline QRadioButton* radioTitled(QWidget* root, const QString& title) {
  for (QRadioButton* radio : root->findChildren<QRadioButton*>()) {
    if (radio->text() == title && radio->isVisible() && radio->height() > 0) return radio;
  }
  return nullptr;
}

// Clicks a mode's circle, as a user does.
inline void clickRadio(QWidget* root, const QString& title) {
  QTRY_VERIFY(radioTitled(root, title) != nullptr);
  QRadioButton* radio = radioTitled(root, title);
  QTest::mouseClick(radio, Qt::LeftButton, {}, QPoint(12, radio->height() / 2));
}

class EndToEndTest : public QObject {
  Q_OBJECT

 private slots:
  void initTestCase() {
    norvik_ = qEnvironmentVariable("NORVIK_BIN");
    const QString devbackend = qEnvironmentVariable("NORVIK_DEVBACKEND_BIN");
    if (norvik_.isEmpty() || devbackend.isEmpty()) QSKIP("NORVIK_BIN and NORVIK_DEVBACKEND_BIN are not set");
    QVERIFY(dir_.isValid());
    backend_.setProgram(devbackend);
    backend_.setArguments({"--state-dir", path("backend"), "--port", "0", "--port-file", path("port"), "--write-ca",
                           path("ca.pem"), "--write-provisioning", path("provisioning.json")});
    backend_.setProcessChannelMode(QProcess::MergedChannels);
    backend_.start();
    QTRY_VERIFY_WITH_TIMEOUT(QFile(path("port")).size() > 0, kStepMs);
    QFile port(path("port"));
    QVERIFY(port.open(QIODevice::ReadOnly));
    base_ = "https://127.0.0.1:" + QString::fromUtf8(port.readAll()).trimmed();
  }

  void cleanupTestCase() {
    stopAgent();
    backend_.terminate();
    backend_.waitForFinished(5000);
  }

  void aUserConnectsChoosesSitesAnswersADialogAndTheWidgetDisconnects() {
    AgentLink link(path("home") + "/run/agent.sock");
    Models models(link);
    MainWindow window(models);
    window.show();
    AgentStarter starter(starterOptions());
    bool started = false;
    QVERIFY(!starter.ensureRunning(link.socketPath(), &started));
    QVERIFY2(started, qPrintable(starter.error()));
    agentPid_ = starter.startedPid();
    link.start(100);
    QTRY_VERIFY_WITH_TIMEOUT(models.home.reachable(), kStepMs);
    HomePage* home = window.homePage();
    QTRY_COMPARE_WITH_TIMEOUT(home->stateText(), QString("Отключено"), kStepMs);

    // The toggle: protected, with the server named.
    QTRY_VERIFY_WITH_TIMEOUT(home->toggle()->isEnabled(), kStepMs);
    QTest::mouseClick(home->toggle(), Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(home->stateText(), QString("Защищено"), kStepMs);
    // The local backend names its servers: the place leads, the address follows it.
    QTRY_VERIFY_WITH_TIMEOUT(!models.home.location().isEmpty() && !models.home.server().isEmpty(), kStepMs);
    QCOMPARE(home->serverText(), models.home.location());
    QVERIFY(models.home.serverDetail().endsWith(models.home.server()));

    // By sites, with a Cyrillic site of the user's own.
    QTRY_VERIFY_WITH_TIMEOUT(models.mode.tabShown(), kStepMs);
    window.showScreen(MainWindow::Screen::mode);
    QString bySites;
    for (const ModeChoice& choice : models.mode.choices()) {
      if (choice.mode == "services") bySites = choice.label;
    }
    QVERIFY(!bySites.isEmpty());
    clickRadio(window.modePage(), bySites);
    QTRY_COMPARE_WITH_TIMEOUT(models.mode.current(), QString("services"), kStepMs);
    window.showScreen(MainWindow::Screen::sites);
    SitesPage* sites = window.sitesPage();
    QTRY_VERIFY_WITH_TIMEOUT(sites->field()->isEnabled(), kStepMs);
    sites->field()->insert("пример.рф");  // as an input method types it (keyClicks takes ASCII only)
    QTest::mouseClick(sites->addButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(
        [&] {
          for (const DomainRow& row : models.sites.domains()) {
            if (row.domain == "пример.рф") return true;
          }
          return false;
        }(),
        kStepMs);
    QVERIFY(models.sites.fieldError().isEmpty());

    // A dialog of the overlay queue: the full mode's confirmation, answered with its first button.
    window.showScreen(MainWindow::Screen::mode);
    QString full;
    for (const ModeChoice& choice : models.mode.choices()) {
      if (choice.mode == "full") full = choice.label;
    }
    clickRadio(window.modePage(), full);
    QTRY_VERIFY_WITH_TIMEOUT(window.overlay()->dialogShown(), kStepMs);
    QVERIFY(!window.overlay()->dialogTitle().isEmpty());
    QTest::mouseClick(window.overlay()->buttons().first(), Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(models.mode.current(), QString("full"), kStepMs);
    QTRY_VERIFY_WITH_TIMEOUT(!window.overlay()->dialogShown(), kStepMs);

    // The widget, through the group container's files and the notifications only.
    QTRY_COMPARE_WITH_TIMEOUT(models.home.toggleState(), HomeModel::Toggle::on, kStepMs);
    WidgetBridge bridge(path("home"));
    WidgetWindow widget(bridge);
    bridge.start();
    widget.show();
    QTRY_COMPARE_WITH_TIMEOUT(bridge.phase(), QString("connected"), kStepMs);
    QCOMPARE(widget.statusText(), QString("Защищено"));
    QTRY_VERIFY_WITH_TIMEOUT(widget.toggleButton()->isEnabled(), kStepMs);
    QTest::mouseClick(widget.toggleButton(), Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(home->stateText(), QString("Отключено"), kStepMs);
    QTRY_COMPARE_WITH_TIMEOUT(bridge.phase(), QString("disconnected"), kStepMs);

    // A forced update from the backend: the agent's next start checks the version, and the prompt
    // stands over everything with its one button.
    QProcess curl;
    const QJsonObject update{{"update_type", "force"},
                             {"update_title", "Требуется обновление"},
                             {"update_message", "Эта версия больше не поддерживается."},
                             {"update_mode", "web"},
                             {"update_link", "https://norvik.example/download"}};
    curl.start("curl", {"-sf", "--cacert", path("ca.pem"), "-d",
                        QString::fromUtf8(QJsonDocument(QJsonObject{{"update", update}}).toJson()),
                        base_ + "/admin/app-update"});
    QVERIFY(curl.waitForFinished(kStepMs));
    QCOMPARE(curl.exitCode(), 0);
    stopAgent();
    QTRY_VERIFY_WITH_TIMEOUT(!models.home.reachable(), kStepMs);
    AgentStarter again(starterOptions());
    QVERIFY(!again.ensureRunning(link.socketPath(), &started) && started);
    agentPid_ = again.startedPid();
    QTRY_VERIFY_WITH_TIMEOUT(window.overlay()->dialogShown(), kStepMs);
    QCOMPARE(window.overlay()->dialogTitle(), QString("Требуется обновление"));
    QCOMPARE(window.overlay()->buttons().size(), 1);
    QVERIFY(models.prompt.forced());
  }

 private:
  [[nodiscard]] QString path(const QString& name) const { return dir_.filePath(name); }

  AgentStarter::Options starterOptions() const {
    return AgentStarter::Options{norvik_,
                                 {"--home", path("home"), "--backend", base_ + "/api/", "--ca-file", path("ca.pem"),
                                  "--provisioning", path("provisioning.json"), "--tunnel", "simulated"},
                                 {"--simulated-connect-ms", "100"}};
  }

  void stopAgent() {
    if (agentPid_ <= 0) return;
    ::kill(static_cast<pid_t>(agentPid_), SIGTERM);
    // The agent is not our child (it was started detached); its socket going away is its end.
    QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(path("home") + "/run/agent.sock"), kStepMs);
    agentPid_ = 0;
  }

  QTemporaryDir dir_;
  QString norvik_;
  QString base_;
  QProcess backend_;
  qint64 agentPid_ = 0;
};

}  // namespace norvik::gui
