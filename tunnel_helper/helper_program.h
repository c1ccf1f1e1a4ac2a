#pragma once

namespace norvik::tunnel_helper {

// norvik-tunnel, the Linux tunnel program of "com.norvik.macos.tunnel":
//
//   norvik-tunnel [--interface-prefix P] [--wireguard-go PATH] [--handshake-timeout-ms N]
//       runs one tunnel session: the provider configuration arrives as the first line of standard
//       input, status and telemetry leave on standard output, log lines on standard error (see
//       platform/linux/tunnel_helper_protocol.h). Ends when asked to stop, when standard input
//       closes or the parent dies, on SIGTERM or SIGINT, or on its own failure — always after
//       giving the network back. Exit status 0 after a stop, 1 after a failure, 2 for bad usage.
//   norvik-tunnel probe     exit status 0 when a tunnel can be run here, else 1 and the reason
//   norvik-tunnel cleanup   takes away rules and routes a killed helper left behind
int runTunnelHelper(int argc, char** argv);

}  // namespace norvik::tunnel_helper
