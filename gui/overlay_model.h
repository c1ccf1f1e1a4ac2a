#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include "gui/agent_link.h"

namespace norvik::gui {

struct OverlayButton {
  int index = 0;
  QString title;
  bool operator==(const OverlayButton&) const = default;
};

// What the overlay queue shows now: a dialog waiting for its answer, or a toast the agent closes
// by itself. The agent decides the order and the timing; the model only renders the current item
// and hands the chosen button back.
class OverlayModel : public QObject {
  Q_OBJECT

 public:
  enum class Kind { none, dialog, toast };

  explicit OverlayModel(AgentLink& link, QObject* parent = nullptr);

  [[nodiscard]] Kind kind() const;
  [[nodiscard]] QString id() const { return overlay().value("id").toString(); }
  [[nodiscard]] QString identifier() const { return overlay().value("identifier").toString(); }
  [[nodiscard]] QString title() const { return overlay().value("title").toString(); }
  [[nodiscard]] QString message() const { return overlay().value("message").toString(); }
  [[nodiscard]] QList<OverlayButton> buttons() const;
  // The check box's text ("Больше не показывать"), empty when the dialog has none.
  [[nodiscard]] QString choice() const { return overlay().value("choice").toObject().value("title").toString(); }
  [[nodiscard]] int waiting() const { return overlay().value("waiting").toInt(); }

  void answer(int buttonIndex, bool dontShowAgain = false);

 signals:
  void changed();

 private:
  [[nodiscard]] QJsonObject overlay() const { return link_.object("overlay"); }
  AgentLink& link_;
};

// The update prompt of the version check (forced, soft screen, one-time, ordinary). A forced
// prompt has no "later" and cannot be closed; the main button either installs in the agent or
// asks the application to open the download page.
class PromptModel : public QObject {
  Q_OBJECT

 public:
  explicit PromptModel(AgentLink& link, QObject* parent = nullptr);

  [[nodiscard]] bool shown() const { return !prompt().isEmpty(); }
  [[nodiscard]] QString id() const { return prompt().value("id").toString(); }
  [[nodiscard]] QString kind() const { return prompt().value("kind").toString(); }
  [[nodiscard]] bool forced() const { return kind() == "forced"; }
  [[nodiscard]] QString title() const { return prompt().value("title").toString(); }
  [[nodiscard]] QString message() const { return prompt().value("message").toString(); }
  [[nodiscard]] QString textAfterButton() const { return prompt().value("textAfterButton").toString(); }
  [[nodiscard]] QString mainButton() const { return prompt().value("mainButton").toString(); }
  [[nodiscard]] QString laterButton() const { return prompt().value("laterButton").toString(); }

  void chooseMain() { answer("main"); }
  void chooseLater() { answer("later"); }

 signals:
  void changed();
  // The page the user asked for; the application opens it in the browser.
  void openUrl(const QString& url);

 private:
  void answer(const QString& button);
  [[nodiscard]] QJsonObject prompt() const { return link_.object("prompt"); }
  AgentLink& link_;
};

}  // namespace norvik::gui
