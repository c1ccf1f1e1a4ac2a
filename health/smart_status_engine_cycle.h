#pragma once

// The engine's private state of one check; included by the engine's own sources only.

#include "health/smart_status_engine.h"

namespace norvik {

struct SmartStatusEngine::Window {
  std::uint64_t id = 0;
  EventLoop::TimePoint openedAt{};
  VerifyDemands demands;
  VerifyEvidence evidence;
  bool over = false;
  bool fetching = false;
  std::uint64_t fetchSequence = 0;
  bool probeStarted = false;
  RepeatingTimer pollTimer;
  OneShotTimer endTimer;
  OneShotTimer failFastTimer;
  OneShotTimer fetchTimeout;
};

struct SmartStatusEngine::Cycle {
  std::uint64_t id = 0;
  Reason reason = Reason::connect;
  SmartStatusPolicy policy;    // as it stood when the check began
  SmartStatusHealth busy;      // the label while it verifies
  SmartStatusHealth previous;  // the health before it, back again when a check has no verdict
  bool allowRepair = true;
  std::int64_t repairsDone = 0;
  bool repairing = false;  // a silent restart of ours runs
  std::optional<VPNManager::RepairToken> token;
  bool freshHandshake = false;
  Clock::TimePoint anchor{};
  std::uint64_t nextWindowId = 1;
  std::unique_ptr<Window> window;
  OneShotTimer guard;  // the cold-start look at the telemetry
};

}  // namespace norvik
