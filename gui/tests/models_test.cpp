// Runs the test class of models_test.h.
#include "gui/tests/models_test.h"

QTEST_GUILESS_MAIN(norvik::gui::ModelsTest)
