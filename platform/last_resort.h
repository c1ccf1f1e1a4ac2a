#pragma once

#include <cstdio>
#include <exception>

namespace norvik {

// A program's main runs its body through this. An exception that escaped every handler is caught
// here, so the stack unwinds and every owner gives back what it holds (the helper's routes and
// resolvers among them) instead of an abort leaving them in place; the program then ends with
// status 1 and a line naming what happened.
template <class Body>
int runToTheEnd(const char* program, Body&& body) {
  try {
    return body();
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "%s: непредвиденная ошибка: %s\n", program, e.what());
  } catch (...) {
    (void)std::fprintf(stderr, "%s: непредвиденная ошибка\n", program);
  }
  return 1;
}

}  // namespace norvik
