#pragma once

#include <string>
#include <string_view>

namespace norvik {

// Release notes arrive as HTML; the update screen shows plain text. A closing </p>, </li>,
// </h1>…</h6> or </div> ends a line, and so does <br>; every other tag is dropped, as are scripts,
// style sheets and comments; character references are decoded; runs of white space become one
// space; blank lines are removed. Input that is not HTML comes out as its text.
[[nodiscard]] std::string releaseNotesText(std::string_view html);

}  // namespace norvik
