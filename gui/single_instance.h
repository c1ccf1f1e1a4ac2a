#pragma once

#include <QLocalServer>
#include <QLockFile>
#include <QObject>
#include <QString>

namespace norvik::gui {

// One application per user and agent home: a second launch (a click on the menu entry while the
// application sits in the tray) hands its wish to the running one — bring the window forward — and
// ends, so that nobody ever sees two tray items fighting over one agent.
//
// The first claims a lock file in the run directory and listens on a socket beside it; a later
// launch finds the lock held, says "raise" on the socket and is done. A lock left by a process
// that died is taken over (the lock file names its owner's PID).
//
// Threading: the GUI thread.
class SingleInstance : public QObject {
  Q_OBJECT

 public:
  enum class Claim {
    first,       // this process is the application
    handedOver,  // another one runs and has been told; this one ends
    unanswered,  // another one holds the lock but does not answer: this one runs without the socket
  };

  explicit SingleInstance(const QString& runDirectory, QObject* parent = nullptr);
  ~SingleInstance() override;
  SingleInstance(const SingleInstance&) = delete;
  SingleInstance& operator=(const SingleInstance&) = delete;

  // `raise`: whether a running application should bring its window forward (a launch at login
  // must not pop the window of one already running).
  Claim claim(bool raise, int answerWithinMs = 3000);

  [[nodiscard]] QString socketPath() const { return socketPath_; }

 signals:
  // Another launch asked for the window.
  void activated();

 private:
  void accept();

  QString socketPath_;
  QLockFile lock_;
  QLocalServer server_;
};

}  // namespace norvik::gui
