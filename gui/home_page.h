#pragma once

#include <QWidget>

class QLabel;
class QPushButton;
class QFrame;

namespace norvik::gui {

class HomeModel;
class PowerToggle;

// Helpers shared by the screens: a card frame with a vertical layout, and a label of a given role.
QFrame* makeCard(QWidget* parent, const char* role = "card");
QLabel* makeLabel(const QString& text, const char* role, QWidget* parent);

// The home screen: the state in big words, the toggle, the server with "change server", the
// health line, and the cards the agent asks for.
class HomePage : public QWidget {
  Q_OBJECT

 public:
  HomePage(HomeModel& model, QWidget* parent = nullptr);
  [[nodiscard]] PowerToggle* toggle() const { return toggle_; }
  [[nodiscard]] QPushButton* changeServerButton() const { return changeServer_; }
  [[nodiscard]] QString stateText() const;
  [[nodiscard]] QString serverText() const;

 private:
  void render();

  HomeModel& model_;
  PowerToggle* toggle_;
  QLabel* state_;
  QLabel* busy_;
  QLabel* agentNote_;
  QLabel* server_;
  QLabel* serverDetail_;
  QLabel* mode_;
  QPushButton* changeServer_;
  QLabel* healthDot_;
  QLabel* health_;
  QLabel* reply_;
  QFrame* errorCard_;
  QLabel* errorTitle_;
  QLabel* errorMessage_;
  QFrame* noticeCard_;
  QLabel* noticeTitle_;
  QLabel* noticeMessage_;
};

}  // namespace norvik::gui
