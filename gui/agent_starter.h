#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

namespace norvik::gui {

// Starts the agent when none runs for the home: the installed user service norvik-agent when
// asked to prefer it and it is there, else `norvik [global options] agent`, detached, so that it
// outlives the application (the tunnel is the agent's, not the window's). The agent takes its own
// lock, so two applications starting it at once start one agent.
class AgentStarter : public QObject {
  Q_OBJECT

 public:
  struct Options {
    QString norvik;          // the program; default: "norvik" beside norvik-gui, else on PATH
    QStringList globalArgs;  // --home, --backend, … as the command line takes them
    QStringList agentArgs;   // options of `norvik agent`
    // The user's own agent (the default home, no options): start the installed user service
    // when there is one, so that the package's scripts find and restart it after an update.
    bool preferService = false;
  };

  explicit AgentStarter(Options options, QObject* parent = nullptr);

  // True when an agent answers on `socketPath`; else starts one and returns false. `started`
  // says whether a start was attempted and succeeded.
  bool ensureRunning(const QString& socketPath, bool* started = nullptr);
  [[nodiscard]] QString program() const;
  [[nodiscard]] const QString& error() const { return error_; }
  // The agent this starter started (0: none).
  [[nodiscard]] qint64 startedPid() const { return pid_; }

 private:
  Options options_;
  QString error_;
  qint64 pid_ = 0;
};

}  // namespace norvik::gui
