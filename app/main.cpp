#include "app/cli.h"

int main(int argc, char** argv) { return norvik::cli::run(argc, argv); }
