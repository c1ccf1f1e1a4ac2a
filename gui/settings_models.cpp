#include "gui/settings_models.h"

#include <QJsonArray>

namespace norvik::gui {

MenuModel::MenuModel(AgentLink& link, QObject* parent) : QObject(parent), link_(link) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "menu") emit changed();
  });
  connect(&link_, &AgentLink::openWindowRequested, this, &MenuModel::openWindow);
}

QString MenuModel::title() const {
  const QString title = menu().value("title").toString();
  return title.isEmpty() ? QStringLiteral("Norvik") : title;
}

QList<MenuItem> MenuModel::items() const {
  QList<MenuItem> items;
  for (const auto& value : menu().value("items").toArray()) {
    const QJsonObject item = value.toObject();
    const QJsonValue checked = item.value("checked");
    items.append(MenuItem{item.value("index").toInt(), item.value("title").toString(), item.value("action").toString(),
                          item.value("enabled").toBool(true), checked.isBool(), checked.toBool()});
  }
  return items;
}

int MenuModel::launchAtLoginIndex() const {
  for (const MenuItem& item : items()) {
    if (item.action == "toggleLaunchAtLogin") return item.index;
  }
  return -1;
}

bool MenuModel::launchAtLogin() const {
  for (const MenuItem& item : items()) {
    if (item.action == "toggleLaunchAtLogin") return item.checked;
  }
  return false;
}

void MenuModel::choose(int index) {
  for (const MenuItem& item : items()) {
    if (item.index != index) continue;
    // The window opens at once, even when the agent is gone; the agent's open-window event that
    // follows only raises it again.
    if (item.action == "openMainWindow") emit openWindow();
    link_.request(QJsonObject{{"command", "menu"}, {"item", index}});
    return;
  }
}

SettingsModel::SettingsModel(AgentLink& link, MenuModel& menu, QObject* parent)
    : QObject(parent), link_(link), menu_(menu) {
  connect(&link_, &AgentLink::topicChanged, this, [this](const QString& topic) {
    if (topic == "links" || topic == "mode" || topic == "updater") emit changed();
  });
  connect(&menu_, &MenuModel::changed, this, &SettingsModel::changed);
}

bool SettingsModel::smartModeOffered() const {
  const QJsonObject mode = link_.object("mode");
  if (!mode.value("forced").toString().isEmpty()) return false;
  for (const auto& allowed : mode.value("allowed").toArray()) {
    if (allowed.toObject().value("mode").toString() == "smart") return true;
  }
  return false;
}

void SettingsModel::setLaunchAtLogin(bool on) {
  const int index = menu_.launchAtLoginIndex();
  if (index < 0 || on == launchAtLogin()) return;
  menu_.choose(index);
}

void SettingsModel::setSmartMode(bool on) {
  error_.clear();
  link_.requestChange(QJsonObject{{"command", "smart-mode"}, {"enabled", on}}, this, [this](const QString& error) {
    error_ = error;
    emit changed();
  });
}

}  // namespace norvik::gui
