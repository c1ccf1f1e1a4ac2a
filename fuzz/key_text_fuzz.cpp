// Any bytes as a key text: normalising never crashes, is stable (a normalised text normalises to
// itself), and the server address comes out of any text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tunnel/key_text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string once = norvik::normalizeKeyText(text);
  if (norvik::normalizeKeyText(once) != once) std::abort();
  (void)norvik::extractServerAddress(once);
  (void)norvik::extractServerAddress(text);
  return 0;
}
