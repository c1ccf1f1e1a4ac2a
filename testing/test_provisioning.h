#pragma once

#include "backend/provisioning.h"
#include "platform/crypto.h"

namespace norvik::testing {

// Made-up secrets for tests; nothing here is used by any deployment.
inline Bytes testAesKey() {
  Bytes key(32);
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(0xA0 + i);
  return key;
}

inline Provisioning testProvisioning() {
  Provisioning p;
  p.hmacSecretKey = "test-general-signing-key";
  p.apiHmacKey = "test-api-signing-key";
  p.hmacMessage = "test-general-message";
  p.secondaryHmacSecretKey = "test-secondary-key";
  p.secondaryHmacMessage = "test-secondary-message";
  p.paymentHmacSecretKey = "test-payment-key";
  p.paymentHmacMessage = "test-payment-message";
  p.supportHmacSecret = "test-support-key";
  p.supportHmacMessage = "test-support-message";
  p.aesEncryptionKey = base64Encode(testAesKey());
  return p;
}

}  // namespace norvik::testing
