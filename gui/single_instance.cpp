#include "gui/single_instance.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>
#include <QThread>

namespace norvik::gui {

namespace {
constexpr char kRaise[] = "raise\n";
constexpr char kQuiet[] = "quiet\n";

// The application may run before the agent ever has: the directories it makes are the user's
// alone, as the agent makes them.
void makePrivateDirectory(const QString& path) {
  QStringList missing;
  for (QDir dir(path); !dir.exists() && !dir.isRoot(); dir.setPath(QFileInfo(dir.absolutePath()).path())) {
    missing << dir.absolutePath();
  }
  QDir().mkpath(path);
  for (const QString& made : missing) {
    QFile::setPermissions(made, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
  }
}
}  // namespace

SingleInstance::SingleInstance(const QString& runDirectory, QObject* parent)
    : QObject(parent), socketPath_(runDirectory + "/gui.sock"), lock_(runDirectory + "/gui.lock") {
  // Only a dead owner makes a lock stale: an application may run for months.
  lock_.setStaleLockTime(0);
  connect(&server_, &QLocalServer::newConnection, this, &SingleInstance::accept);
}

SingleInstance::~SingleInstance() {
  // Listeners must not call back into a half-destroyed object.
  server_.disconnect(this);
  server_.close();
}

SingleInstance::Claim SingleInstance::claim(bool raise, int answerWithinMs) {
  makePrivateDirectory(QFileInfo(socketPath_).absolutePath());
  if (lock_.tryLock(0)) {
    // The socket of a predecessor that died is in the way of ours.
    QLocalServer::removeServer(socketPath_);
    server_.setSocketOptions(QLocalServer::UserAccessOption);
    server_.listen(socketPath_);
    return Claim::first;
  }
  // The holder may still be starting: give its socket a moment to appear.
  const QDeadlineTimer deadline(answerWithinMs);
  while (!deadline.hasExpired()) {
    QLocalSocket socket;
    socket.connectToServer(socketPath_);
    if (socket.waitForConnected(200)) {
      socket.write(raise ? kRaise : kQuiet);
      socket.waitForBytesWritten(500);
      socket.disconnectFromServer();
      return Claim::handedOver;
    }
    QThread::msleep(50);
  }
  return Claim::unanswered;
}

void SingleInstance::accept() {
  while (QLocalSocket* socket = server_.nextPendingConnection()) {
    // Requests are one short line; anything else is ignored.
    auto read = [this, socket] {
      while (socket->canReadLine()) {
        if (socket->readLine(64) == kRaise) emit activated();
      }
      if (socket->bytesAvailable() > 64) socket->abort();
    };
    connect(socket, &QLocalSocket::readyRead, this, read);
    connect(socket, &QLocalSocket::disconnected, this, [socket, read] {
      read();
      socket->deleteLater();
    });
  }
}

}  // namespace norvik::gui
