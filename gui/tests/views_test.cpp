// Runs the test class of views_test.h.
#include "gui/tests/views_test.h"

#include <QApplication>

#include "gui/style.h"

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  norvik::gui::applyStyle(app);
  norvik::gui::ViewsTest test;
  return QTest::qExec(&test, argc, argv);
}
