// Any bytes as a custom domain the user typed: the reader either refuses them or returns a name
// the tunnel can match — lower-case letters, digits, hyphens and dots, at most 253 characters —
// and reading its own results again gives the same name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "routing/domain_name.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto name = norvik::parseDomainName(text);
  if (!name) return 0;
  if (name->ascii.empty() || name->ascii.size() > 253) std::abort();
  for (char c : name->ascii) {
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
    if (!allowed) std::abort();
  }
  auto again = norvik::parseDomainName(name->ascii);
  if (!again || again->ascii != name->ascii) std::abort();
  auto shown = norvik::parseDomainName(name->display);
  if (!shown || shown->ascii != name->ascii) std::abort();
  return 0;
}
