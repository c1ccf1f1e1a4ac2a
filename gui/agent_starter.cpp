#include "gui/agent_starter.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QLocalSocket>
#include <QProcess>
#include <QStandardPaths>

namespace norvik::gui {

AgentStarter::AgentStarter(Options options, QObject* parent) : QObject(parent), options_(std::move(options)) {}

QString AgentStarter::program() const {
  if (!options_.norvik.isEmpty()) return options_.norvik;
  QString beside = QCoreApplication::applicationDirPath() + "/norvik";
  if (QFileInfo(beside).isExecutable()) return beside;
  const QString onPath = QStandardPaths::findExecutable("norvik");
  return onPath.isEmpty() ? QStringLiteral("norvik") : onPath;
}

bool AgentStarter::ensureRunning(const QString& socketPath, bool* started) {
  if (started != nullptr) *started = false;
  {
    QLocalSocket probe;
    probe.connectToServer(socketPath);
    if (probe.waitForConnected(500)) return true;
  }
  const QString unit =
      QCoreApplication::applicationDirPath() + QStringLiteral("/../lib/systemd/user/norvik-agent.service");
  const QString systemctl = QStandardPaths::findExecutable(QStringLiteral("systemctl"));
  if (options_.preferService && QFileInfo::exists(unit) && !systemctl.isEmpty()) {
    // systemctl asks the user's service manager and returns; the socket follows.
    if (QProcess::startDetached(systemctl, {"--user", "start", "norvik-agent.service"})) {
      if (started != nullptr) *started = true;
      return false;
    }
  }
  QStringList args = options_.globalArgs;
  args << "agent" << options_.agentArgs;
  qint64 pid = 0;
  QProcess process;
  process.setProgram(program());
  process.setArguments(args);
  process.setStandardOutputFile(QProcess::nullDevice());
  process.setStandardErrorFile(QProcess::nullDevice());
  if (!process.startDetached(&pid)) {
    error_ = tr("Не удалось запустить агент Norvik (%1).").arg(program());
    return false;
  }
  pid_ = pid;
  if (started != nullptr) *started = true;
  return false;
}

}  // namespace norvik::gui
