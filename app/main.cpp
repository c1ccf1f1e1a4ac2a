#include "app/cli.h"
#include "platform/last_resort.h"

int main(int argc, char** argv) {
  return norvik::runToTheEnd("norvik", [&] { return norvik::cli::run(argc, argv); });
}
