// Runs the test class of end_to_end_test.h.
#include "gui/tests/end_to_end_test.h"

#include <QApplication>

#include "gui/style.h"

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  norvik::gui::applyStyle(app);
  norvik::gui::EndToEndTest test;
  return QTest::qExec(&test, argc, argv);
}
