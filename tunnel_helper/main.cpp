#include <cstdio>
#include <exception>

#include "tunnel_helper/helper_program.h"

int main(int argc, char** argv) {
  // Last resort: caught, an exception unwinds the helper, so the routes and resolvers it set are
  // taken back by their owners before it ends; uncaught, it would abort with them in place.
  try {
    return norvik::tunnel_helper::runTunnelHelper(argc, argv);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "norvik-tunnel: непредвиденная ошибка: %s\n", e.what());
  } catch (...) {
    (void)std::fputs("norvik-tunnel: непредвиденная ошибка\n", stderr);
  }
  return 1;
}
