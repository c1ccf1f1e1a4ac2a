// Any bytes as a downloaded package: finding its signature member either succeeds or names the
// problem; it never crashes or reads out of bounds. What it finds must lie inside the file, and the
// same bytes as a member's text are read the same way.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "update/package_signature.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  auto found = norvik::findPackageSignature(bytes);
  if (found && (found->signedLength >= size || found->publicKey.size() != 32)) __builtin_trap();
  auto parsed = norvik::parsePackageSignature(bytes, 0);
  if (parsed && parsed->publicKey.size() != 32) __builtin_trap();
  return 0;
}
