#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace norvik {

// The key text is the WireGuard-style configuration the backend hands out ("[Interface]" and
// "[Peer]" sections of `Key = Value` lines). The client never interprets the keys themselves; it
// normalises the text so that the same key always looks the same, and reads the server's host
// from its Endpoint line.

// Splits at line breaks (LF, CR, CRLF as one, and the Unicode line and paragraph separators),
// trims each line, collapses runs of blank lines into one and drops leading and trailing ones,
// keeps section headers as they are, rewrites `Key=Value` lines as "Key = Value" (an "=" inside a
// Base64 value survives), and joins with "\n" without a final newline.
[[nodiscard]] std::string normalizeKeyText(std::string_view text);

// The host of the first line that begins with "Endpoint": what follows the last "=", trimmed, up
// to the first ":". A bracketed IPv6 endpoint therefore gives "[" and its first group; the tunnel
// only shows this address, and it is kept as it always was. Nothing when there is no such line
// or the host is empty.
[[nodiscard]] std::optional<std::string> extractServerAddress(std::string_view normalizedText);

}  // namespace norvik
