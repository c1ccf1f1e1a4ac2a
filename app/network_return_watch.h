#pragma once

#include <functional>
#include <string_view>

#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/physical_path_source.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

// Notices the physical network coming back: a path that becomes satisfied after it was not, or a
// satisfied path that moves to other interfaces (another Wi-Fi, a cable plugged in). The tunnel's
// on-demand rule connects whenever a usable network appears; this is how the agent learns that one
// has. It has a path source of its own because the health engine's monitor runs only while checks
// are on.
//
// The first path after start() is the baseline and reports nothing. Interfaces of the "other" kind
// (the tunnel's own among them) are left out, so the tunnel coming and going is never a return.
//
// Threading: a main-loop object. The source's calls are posted to the loop; none runs after stop().
class NetworkReturnWatch {
 public:
  using ReturnHandler = std::function<void(std::string_view why)>;

  NetworkReturnWatch(EventLoop& loop, PhysicalPathSource& source, Log& log, ReturnHandler onReturn);
  NetworkReturnWatch(const NetworkReturnWatch&) = delete;
  NetworkReturnWatch& operator=(const NetworkReturnWatch&) = delete;
  ~NetworkReturnWatch();

  // False, with a log line, when the system refused to watch; the agent then relies on wakes alone.
  bool start();
  void stop();

 private:
  void observe(const NetworkPath& path);

  EventLoop& loop_;
  PhysicalPathSource& source_;
  Log& log_;
  ReturnHandler onReturn_;
  bool running_ = false;
  bool seenFirst_ = false;
  NetworkPath last_;
  WeakPtrFactory<NetworkReturnWatch> weakFactory_{this};
};

}  // namespace norvik
