#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace norvik {

// True when `text` is well-formed UTF-8.
[[nodiscard]] bool isValidUtf8(std::string_view text);
// The first `count` characters (code points) of a UTF-8 text, for logging prefixes of identifiers.
[[nodiscard]] std::string utf8Prefix(std::string_view text, std::size_t count);
// Replaces each ill-formed sequence with U+FFFD, as the system does when it reads bytes as UTF-8.
[[nodiscard]] std::string repairUtf8(std::string_view bytes);
// Trims spaces, tabs, carriage returns and newlines at both ends.
[[nodiscard]] std::string_view trimWhitespace(std::string_view text);

}  // namespace norvik
