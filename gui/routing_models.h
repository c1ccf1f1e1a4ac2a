#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include "gui/agent_link.h"

namespace norvik::gui {

struct ModeChoice {
  QString mode;  // "smart", "full", "services"
  QString label;
  QString description;
  bool operator==(const ModeChoice&) const = default;
};

// The mode tab: the modes the backend allows with their labels, the one in force, the disclaimer
// and the provider's notice. Choosing the full mode asks its confirmation through the overlay
// queue, so the dialog is the agent's and every front-end shows the same one.
class ModeModel : public QObject {
  Q_OBJECT

 public:
  explicit ModeModel(AgentLink& link, QObject* parent = nullptr);

  [[nodiscard]] bool tabShown() const { return mode().value("showModeTab").toBool(); }
  [[nodiscard]] QString current() const { return mode().value("mode").toString(); }
  [[nodiscard]] QString currentLabel() const { return mode().value("label").toString(); }
  [[nodiscard]] QList<ModeChoice> choices() const;
  // The mode is the provider's: the choices are shown but cannot be changed.
  [[nodiscard]] bool forced() const { return !mode().value("forced").toString().isEmpty(); }
  [[nodiscard]] QString notice() const { return mode().value("notice").toString(); }
  [[nodiscard]] QString disclaimer() const { return mode().value("disclaimer").toString(); }
  [[nodiscard]] const QString& errorText() const { return error_; }

  void choose(const QString& mode);

 signals:
  void changed();

 private:
  [[nodiscard]] QJsonObject mode() const { return link_.object("mode"); }
  AgentLink& link_;
  QString error_;
};

struct ServiceRow {
  QString key;
  QString title;
  bool on = false;
  bool operator==(const ServiceRow&) const = default;
};

struct DomainRow {
  QString domain;
  bool on = false;
  bool operator==(const DomainRow&) const = default;
};

// The sites screen: the service catalog with its switches and the user's own domains. The agent
// checks every domain; its refusal ("…") is shown beside the field, and the field keeps the text
// so that the user can correct it.
class SitesModel : public QObject {
  Q_OBJECT

 public:
  explicit SitesModel(AgentLink& link, QObject* parent = nullptr);

  [[nodiscard]] QList<ServiceRow> services() const;
  [[nodiscard]] QList<DomainRow> domains() const;
  [[nodiscard]] bool customDomainsAllowed() const { return sites().value("allowCustomDomains").toBool(); }
  [[nodiscard]] bool canAddDomain() const { return sites().value("canAddDomain").toBool(); }
  [[nodiscard]] QString domainLimitText() const { return sites().value("domainLimitText").toString(); }
  [[nodiscard]] QString emptyTitle() const;
  [[nodiscard]] QString emptyMessage() const;
  [[nodiscard]] QString vpnOffTitle() const;
  [[nodiscard]] QString vpnOffMessage() const;
  [[nodiscard]] QString text(const QString& key) const {
    return sites().value("texts").toObject().value(key).toString();
  }
  // Why the last domain was refused, beside the field; empty once a domain is taken.
  [[nodiscard]] const QString& fieldError() const { return fieldError_; }
  // The text the field keeps: what the user typed, until the agent has taken it.
  [[nodiscard]] const QString& fieldText() const { return fieldText_; }

  void setService(const QString& key, bool on);
  void addDomain(const QString& domain);
  void removeDomain(const QString& domain);
  void setDomain(const QString& domain, bool on);

 signals:
  void changed();

 private:
  void send(const QString& action, const QString& value, bool fromField);
  [[nodiscard]] QJsonObject sites() const { return link_.object("sites"); }
  AgentLink& link_;
  QString fieldError_;
  QString fieldText_;
};

}  // namespace norvik::gui
