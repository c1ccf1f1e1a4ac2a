#include "gui/widget_bridge.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>
#include <QUuid>

namespace norvik::gui {
namespace {

// The group container of the application, as the agent lays it out under its home.
constexpr const char* kGroupContainer = "group/QX7RT2LM9A.com.norvik.macos";
// A state file larger than this is not the application's.
constexpr qint64 kMaxStateBytes = 64 * 1024;

bool writeAtomically(const QString& path, const QByteArray& bytes) {
  QSaveFile file(path);
  if (!file.open(QIODevice::WriteOnly)) return false;
  file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
  return file.write(bytes) == bytes.size() && file.commit();
}

}  // namespace

WidgetBridge::WidgetBridge(const QString& home, QObject* parent)
    : QObject(parent), container_(QDir(home).filePath(kGroupContainer)), notify_(QDir(home).filePath("run/notify")) {
  connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, [this] { readState(); });
}

QString WidgetBridge::stateFile() const { return QDir(container_).filePath("widget-state.json"); }
QString WidgetBridge::commandFile() const { return QDir(container_).filePath("widget-command.json"); }

void WidgetBridge::start() {
  QDir().mkpath(notify_);
  QFile::setPermissions(notify_, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
  watcher_.addPath(notify_);
  lastStateStamp_.clear();
  readState();
}

void WidgetBridge::readState() {
  // The directory changes for every post of every program; only a new state post matters.
  const QFileInfo post(QDir(notify_).filePath(kStateNotification));
  const QByteArray stamp = post.exists() ? QByteArray::number(post.lastModified().toMSecsSinceEpoch()) + ':' +
                                               QByteArray::number(post.metadataChangeTime().toMSecsSinceEpoch()) + ':' +
                                               QByteArray::number(post.size())
                                         : QByteArray("none");
  if (!lastStateStamp_.isEmpty() && stamp == lastStateStamp_) return;
  lastStateStamp_ = stamp;
  QFile file(stateFile());
  if (file.size() > kMaxStateBytes || !file.open(QIODevice::ReadOnly)) return;
  const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
  // A state without its phase is not one the application wrote.
  if (!document.isObject() || !document.object().value("phase").isString() || document.object() == state_) return;
  state_ = document.object();
  emit changed();
}

bool WidgetBridge::send(const QString& kind) {
  const QJsonObject command{
      {"kind", kind},
      {"issuedAt", QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
      {"id", QUuid::createUuid().toString(QUuid::WithoutBraces)},
  };
  QDir().mkpath(container_);
  if (!writeAtomically(commandFile(), QJsonDocument(command).toJson(QJsonDocument::Compact))) return false;
  return post(kCommandNotification);
}

bool WidgetBridge::post(const char* name) {
  // The rename of the finished file is the post; the application hears its name.
  return writeAtomically(QDir(notify_).filePath(name), QByteArray::number(QCoreApplication::applicationPid()) + '\n');
}

}  // namespace norvik::gui
