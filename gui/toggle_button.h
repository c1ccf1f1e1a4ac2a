#pragma once

#include <QAbstractButton>

namespace norvik::gui {

// The big round toggle of the home screen: grey when off, green when protected, amber while the
// agent is busy. It never animates, so an idle window does not wake up.
class PowerToggle : public QAbstractButton {
  Q_OBJECT

 public:
  enum class Look { off, on, busy };
  explicit PowerToggle(QWidget* parent = nullptr);
  void setLook(Look look);
  [[nodiscard]] Look look() const { return look_; }
  [[nodiscard]] QSize sizeHint() const override { return {176, 176}; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  Look look_ = Look::off;
};

// A small on/off switch (a pill with a knob), checkable, with its title as its accessible name; the
// title itself is shown beside it by the row that holds it.
class Switch : public QAbstractButton {
  Q_OBJECT

 public:
  explicit Switch(const QString& accessibleName, QWidget* parent = nullptr);
  [[nodiscard]] QSize sizeHint() const override { return {44, 26}; }

 protected:
  void paintEvent(QPaintEvent* event) override;
};

}  // namespace norvik::gui
