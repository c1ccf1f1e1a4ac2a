// Any bytes as a /geoip body: the judge either refuses them or returns a list in which every
// line is a CIDR, as many lines as it counted, and nothing longer than the body allows.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "routing/geoip_payload.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  auto list = norvik::acceptGeoIPPayload(body);
  if (!list) {
    if (list.error().bytes != size) std::abort();
    return 0;
  }
  std::string_view text = list->text;
  std::size_t lines = 0;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) std::abort();  // every line ends in a newline
    if (!norvik::isCidr(text.substr(0, end))) std::abort();
    ++lines;
    text.remove_prefix(end + 1);
  }
  if (lines != list->cidrCount) std::abort();
  return 0;
}
