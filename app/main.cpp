#include <cstdio>
#include <exception>

#include "app/cli.h"

int main(int argc, char** argv) {
  // Last resort: an exception that escaped every handler still unwinds (so what the agent holds is
  // released by its owners) and ends with a line that says what happened, not an abort.
  try {
    return norvik::cli::run(argc, argv);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "norvik: непредвиденная ошибка: %s\n", e.what());
  } catch (...) {
    (void)std::fputs("norvik: непредвиденная ошибка\n", stderr);
  }
  return 1;
}
