#include "platform/last_resort.h"
#include "tunnel_helper/helper_program.h"

int main(int argc, char** argv) {
  return norvik::runToTheEnd("norvik-tunnel", [&] { return norvik::tunnel_helper::runTunnelHelper(argc, argv); });
}
