#pragma once

namespace norvik::cli {

// Parses the command line, runs the command and returns the process's exit status.
int run(int argc, char** argv);

}  // namespace norvik::cli
