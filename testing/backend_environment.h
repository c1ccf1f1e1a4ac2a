#pragma once

#include "backend/security_manager.h"
#include "testing/fakes.h"
#include "testing/test_provisioning.h"

namespace norvik::testing {

// What backend tests stand on: virtual time, the platform fakes and an identity over them.
struct BackendEnvironment {
  VirtualEventLoop loop;
  VirtualClock clock{loop};
  FakeSecureItemStore store;
  MemoryDefaults defaults;
  DeterministicCrypto crypto;
  CapturingLog log;
  SecurityManager security{testProvisioning(), store, defaults, crypto, clock, log};
};

}  // namespace norvik::testing
