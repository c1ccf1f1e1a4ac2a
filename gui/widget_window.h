#pragma once

#include <QWidget>

class QLabel;
class QPushButton;

namespace norvik::gui {

class WidgetBridge;

// The desktop widget: a small card with the phase, the status text, the traffic and the health
// verdict, a toggle and "change server". It knows the application only through the group
// container's files, the notifications and the norvikvpn:// links.
class WidgetWindow : public QWidget {
  Q_OBJECT

 public:
  explicit WidgetWindow(WidgetBridge& bridge, QWidget* parent = nullptr);
  [[nodiscard]] QPushButton* toggleButton() const { return toggle_; }
  [[nodiscard]] QPushButton* changeServerButton() const { return changeServer_; }
  [[nodiscard]] QString statusText() const;

 private:
  void render();
  WidgetBridge& bridge_;
  QLabel* dot_;
  QLabel* status_;
  QLabel* traffic_;
  QLabel* health_;
  QPushButton* toggle_;
  QPushButton* changeServer_;
  QPushButton* open_;
};

}  // namespace norvik::gui
