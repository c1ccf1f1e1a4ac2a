#pragma once

#include <QObject>
#include <QString>

#include "gui/agent_link.h"

namespace norvik::gui {

// The in-app updater as the agent runs it: its state in the user's words, the offered release
// with its notes, the download's progress and the install steps. The buttons the screen offers
// follow from the state; the agent does the work.
class UpdateModel : public QObject {
  Q_OBJECT

 public:
  explicit UpdateModel(AgentLink& link, QObject* parent = nullptr);

  [[nodiscard]] QString state() const { return updater().value("state").toString(); }
  [[nodiscard]] QString text() const { return updater().value("text").toString(); }
  [[nodiscard]] QString version() const { return updater().value("version").toString(); }
  [[nodiscard]] QString title() const { return updater().value("title").toString(); }
  [[nodiscard]] QString message() const { return updater().value("message").toString(); }
  [[nodiscard]] QString releaseNotes() const;
  [[nodiscard]] QString currentVersion() const { return updater().value("currentVersion").toString(); }
  // 0…1000 while downloading (when the size is known) or preparing; -1 when there is no bar to
  // show; 0 with `indeterminate` while the size is unknown.
  [[nodiscard]] int progress() const;
  [[nodiscard]] bool indeterminate() const;
  [[nodiscard]] QString installButton() const;
  [[nodiscard]] QString laterButton() const;
  [[nodiscard]] bool canCheck() const;
  [[nodiscard]] bool canCancel() const;

  void check() { send("check"); }
  void install() { send("install"); }
  void postpone() { send("postpone"); }
  void cancel() { send("cancel"); }

 signals:
  void changed();

 private:
  void send(const QString& action);
  [[nodiscard]] QJsonObject updater() const { return link_.object("updater"); }
  AgentLink& link_;
};

}  // namespace norvik::gui
