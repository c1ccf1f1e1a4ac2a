#include "tunnel_helper/helper_program.h"

int main(int argc, char** argv) { return norvik::tunnel_helper::runTunnelHelper(argc, argv); }
