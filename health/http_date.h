#pragma once

#include <optional>
#include <string_view>

#include "platform/clock.h"

namespace norvik {

// Parses an HTTP "Date" header in its one modern form, "Sun, 06 Nov 1994 08:49:37 GMT": English
// day and month names, two-digit day, four-digit year, 24-hour time, the zone always GMT. Anything
// else (other zones, the obsolete RFC 850 and asctime forms, impossible dates such as 30 Feb, a
// leap second) is nothing.
[[nodiscard]] std::optional<Clock::TimePoint> parseHttpDate(std::string_view text);

}  // namespace norvik
