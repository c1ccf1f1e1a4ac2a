// Any bytes as the answer of each other endpoint: every decoder decodes or reports an error.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "backend/endpoint_responses.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  (void)norvik::decodeVPNKeyResponse(body);
  (void)norvik::decodeAppVersionResponse(body);
  (void)norvik::decodeStoreOpenResponse(body);
  (void)norvik::decodeCancelServiceResponse(body);
  (void)norvik::decodeMoveCodeResponse(body);
  (void)norvik::decodeTransferResponse(body);
  (void)norvik::decodePushTokenResponse(body);
  (void)norvik::decodeActivationResponse(body);
  (void)norvik::decodeSupportChatResponse(body);
  (void)norvik::decodeServiceListsResponse(body);
  return 0;
}
