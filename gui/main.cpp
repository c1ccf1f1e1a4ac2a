// norvik-gui: the desktop application (and, with --widget, the desktop widget) of Norvik.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QEvent>
#include <QStandardPaths>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <memory>

#include "gui/agent_link.h"
#include "gui/agent_starter.h"
#include "gui/home_page.h"
#include "gui/main_window.h"
#include "gui/screenshots.h"
#include "gui/single_instance.h"
#include "gui/style.h"
#include "gui/tray.h"
#include "gui/widget_bridge.h"
#include "gui/widget_window.h"

namespace {

// The agent's home as the agent resolves it: --home, else $XDG_DATA_HOME/norvik, else
// ~/.local/share/norvik.
QString resolveHome(const QString& given) {
  if (!given.isEmpty()) return QDir(given).absolutePath();
  const QString xdg = qEnvironmentVariable("XDG_DATA_HOME");
  if (xdg.startsWith('/')) return xdg + "/norvik";
  return QDir::homePath() + "/.local/share/norvik";
}

int runWidget(const QString& home) {
  norvik::gui::WidgetBridge bridge(home);
  norvik::gui::WidgetWindow widget(bridge);
  bridge.start();
  widget.show();
  return QApplication::exec();
}

}  // namespace

namespace {

// With NORVIK_GUI_FIRST_FRAME set, says on stderr how long after main() the home screen was first
// painted with the agent's state ("quit": and ends then), for scripts/measure-gui.
class FirstFrameReport : public QObject {
 public:
  FirstFrameReport(const QElapsedTimer& clock, const norvik::gui::HomeModel& home, bool quit)
      : clock_(clock), home_(home), quit_(quit) {}

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::Paint && home_.reachable() && !done_) {
      done_ = true;
      qInfo("first frame: %lld ms after main()", static_cast<long long>(clock_.elapsed()));
      if (quit_) QTimer::singleShot(0, qApp, &QApplication::quit);
    }
    return QObject::eventFilter(watched, event);
  }

 private:
  const QElapsedTimer& clock_;
  const norvik::gui::HomeModel& home_;
  bool quit_;
  bool done_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  QElapsedTimer sinceMain;
  sinceMain.start();
  QApplication app(argc, argv);
  QApplication::setApplicationName("Norvik");
  QApplication::setDesktopFileName("com.norvik.Norvik");
  norvik::gui::applyStyle(app);

  QCommandLineParser parser;
  parser.setApplicationDescription("Norvik VPN");
  parser.addHelpOption();
  const QCommandLineOption homeOption("home", "Directory of the agent's state (as norvik --home).", "DIR");
  const QCommandLineOption backendOption("backend", "Backend URL handed to an agent this starts.", "URL");
  const QCommandLineOption caOption("ca-file", "Extra trusted CA handed to an agent this starts.", "FILE");
  const QCommandLineOption provisioningOption("provisioning", "Provisioning file for an agent this starts.", "FILE");
  const QCommandLineOption tunnelOption("tunnel", "Tunnel service of an agent this starts.", "KIND");
  const QCommandLineOption agentArgOption("agent-arg", "Option of `norvik agent` for an agent this starts.", "ARG");
  const QCommandLineOption norvikOption("norvik", "The norvik program (default: beside this one).", "PATH");
  const QCommandLineOption widgetOption("widget", "Run the desktop widget instead of the application.");
  const QCommandLineOption autostartOption("autostart", "Started at login: stay in the tray.");
  const QCommandLineOption shotsOption("screenshots", "Render the screens to PNG files in DIR and quit.", "DIR");
  const QCommandLineOption shotSetOption("screenshot-set", "Which screens: main (default) or update.", "SET");
  parser.addOptions({homeOption, backendOption, caOption, provisioningOption, tunnelOption, agentArgOption,
                     norvikOption, widgetOption, autostartOption, shotsOption, shotSetOption});
  parser.process(app);

  const QString home = resolveHome(parser.value(homeOption));
  if (parser.isSet(widgetOption)) return runWidget(home);

  // A second launch brings the running application forward instead of starting another.
  norvik::gui::SingleInstance instance(home + "/run");
  if (!parser.isSet(shotsOption)) {
    const auto claim = instance.claim(/*raise=*/!parser.isSet(autostartOption));
    if (claim == norvik::gui::SingleInstance::Claim::handedOver) return 0;
    if (claim == norvik::gui::SingleInstance::Claim::unanswered) {
      qWarning("norvik-gui: another instance holds %s but does not answer; starting anyway",
               qPrintable(instance.socketPath()));
    }
  }

  norvik::gui::AgentStarter::Options startOptions;
  startOptions.norvik = parser.value(norvikOption);
  startOptions.globalArgs << "--home" << home;
  const std::pair<const QCommandLineOption*, const char*> passed[] = {{&backendOption, "--backend"},
                                                                      {&caOption, "--ca-file"},
                                                                      {&provisioningOption, "--provisioning"},
                                                                      {&tunnelOption, "--tunnel"}};
  for (const auto& [option, flag] : passed) {
    if (parser.isSet(*option)) startOptions.globalArgs << flag << parser.value(*option);
  }
  startOptions.agentArgs = parser.values(agentArgOption);
  startOptions.preferService = !parser.isSet(homeOption) && !parser.isSet(norvikOption) &&
                               startOptions.globalArgs.size() == 2 && startOptions.agentArgs.isEmpty();

  norvik::gui::AgentLink link(home + "/run/agent.sock");
  norvik::gui::Models models(link);
  norvik::gui::MainWindow window(models);
  norvik::gui::Tray tray(models.menu);
  QObject::connect(&tray, &norvik::gui::Tray::quitRequested, &app, &QApplication::quit);
  QObject::connect(&instance, &norvik::gui::SingleInstance::activated, &window, &norvik::gui::MainWindow::bringForward);

  norvik::gui::AgentStarter starter(startOptions);
  bool started = false;
  if (!starter.ensureRunning(link.socketPath(), &started)) {
    models.home.setAgentNote(started ? QObject::tr("Агент Norvik не был запущен — запускаем его…") : starter.error());
  }
  QObject::connect(&link, &norvik::gui::AgentLink::subscribedChanged, &models.home, [&](bool subscribed) {
    if (subscribed && started) models.home.setAgentNote(QObject::tr("Агент Norvik запущен приложением."));
  });
  link.start(500);

  if (parser.isSet(shotsOption)) {
    window.show();
    auto* walk = new norvik::gui::ScreenshotWalk(models, window, tray, home, parser.value(shotsOption),
                                                 parser.value(shotSetOption));
    int status = 0;
    QObject::connect(walk, &norvik::gui::ScreenshotWalk::finished, &app, [&](int result) {
      status = result;
      QApplication::quit();
    });
    walk->start();
    QApplication::exec();
    // The agent started for the pictures ends with them.
    if (starter.startedPid() > 0) ::kill(static_cast<pid_t>(starter.startedPid()), SIGTERM);
    return status;
  }

  std::unique_ptr<FirstFrameReport> firstFrame;
  if (qEnvironmentVariableIsSet("NORVIK_GUI_FIRST_FRAME")) {
    firstFrame = std::make_unique<FirstFrameReport>(sinceMain, models.home,
                                                    qEnvironmentVariable("NORVIK_GUI_FIRST_FRAME") == "quit");
    window.homePage()->installEventFilter(firstFrame.get());
  }

  const bool inTray = tray.show();
  if (inTray) {
    QApplication::setQuitOnLastWindowClosed(false);
    window.setHideOnClose(true);
  }
  if (!parser.isSet(autostartOption) || !inTray) window.show();
  return QApplication::exec();
}
