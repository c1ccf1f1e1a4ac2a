#pragma once

#include <QObject>
#include <QString>

#include "gui/agent_link.h"

namespace norvik::gui {

// A card of the home screen: a title and its explanation.
struct Card {
  QString title;
  QString message;
  [[nodiscard]] bool shown() const { return !title.isEmpty(); }
  bool operator==(const Card&) const = default;
};

// The home screen: the toggle, the state text, the busy text while it lasts, the server, the health
// line, the last error and the cards. Everything comes from the agent's `home` and `extension`
// topics; the model's own state is only what the user just asked and the answer to it.
//
// Threading: the GUI thread. Ownership: borrows the link, which outlives it.
class HomeModel : public QObject {
  Q_OBJECT

 public:
  enum class Toggle { off, on, busy };
  enum class Health { none, ok, busy, problem };

  explicit HomeModel(AgentLink& link, QObject* parent = nullptr);

  [[nodiscard]] bool reachable() const { return link_.subscribed(); }
  [[nodiscard]] Toggle toggleState() const;
  [[nodiscard]] bool toggleEnabled() const;
  [[nodiscard]] QString stateText() const;
  [[nodiscard]] QString busyText() const;
  [[nodiscard]] QString server() const;
  // Where the server is ("Нидерланды, Амстердам") when the backend named it, else empty.
  [[nodiscard]] QString location() const;
  // The server's own name and address under its location ("nl-ams-1 · 203.0.113.10").
  [[nodiscard]] QString serverDetail() const;
  [[nodiscard]] bool canChangeServer() const;
  [[nodiscard]] QString healthText() const;
  [[nodiscard]] Health health() const;
  [[nodiscard]] Card lastError() const;
  [[nodiscard]] Card permissionCard() const;
  [[nodiscard]] Card approvalCard() const;
  [[nodiscard]] Card extensionBanner() const;
  [[nodiscard]] QString modeLabel() const;
  [[nodiscard]] QString modeNotice() const;
  // Why the user's last request failed, when the topics do not say it already; cleared by the
  // next request.
  [[nodiscard]] const QString& replyText() const { return replyText_; }
  // What the application itself says about the agent ("Запускаем агент Norvik…").
  [[nodiscard]] const QString& agentNote() const { return agentNote_; }
  void setAgentNote(const QString& note);

  void toggle();
  void changeServer();

 signals:
  void changed();

 private:
  void send(const QString& command);
  void answered(int ticket, const QJsonObject& reply);
  [[nodiscard]] QJsonObject home() const { return link_.object("home"); }

  AgentLink& link_;
  QString replyText_;
  QString agentNote_;
  int pending_ = 0;
};

}  // namespace norvik::gui
