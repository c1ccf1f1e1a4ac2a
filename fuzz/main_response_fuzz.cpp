// Any bytes as a main configuration: the decoder either decodes or reports an error; it never
// crashes, reads out of bounds or grows without bound.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "backend/api_response.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  auto response = norvik::decodeAPIResponse(body);
  if (response) {
    // What the consumers read first must be usable.
    (void)response->main.geoBypass();
    if (response->routing && response->routing->services) {
      for (const auto& service : *response->routing->services) (void)service.key.size();
    }
  }
  return 0;
}
