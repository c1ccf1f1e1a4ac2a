#include "platform/crypto.h"

#include <openssl/evp.h>

namespace norvik {

std::string base64Encode(ByteView bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3), '\0');
  const int written =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(), static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(written));
  return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
  // EVP_DecodeBlock accepts white space and returns padding as zero bytes, so the shape is
  // checked first and the padding length taken off afterwards.
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool alphabet =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (c == '=') {
      if (i + 2 < text.size()) return std::nullopt;  // '=' only in the last two places
      ++padding;
    } else if (!alphabet || padding > 0) {
      return std::nullopt;
    }
  }
  if (text.empty()) return Bytes{};
  Bytes out(text.size() / 4 * 3);
  const int written =
      EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (written < 0) return std::nullopt;
  out.resize(static_cast<std::size_t>(written) - padding);
  return out;
}

std::string hexLower(ByteView bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (auto b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0F]);
  }
  return out;
}

}  // namespace norvik
