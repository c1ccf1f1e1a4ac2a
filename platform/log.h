#pragma once

#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace norvik {

// Where log lines go: plain text, one line per event, the bracketed tag first, exactly as the
// product words them. Production writes to stderr and a log file; tests capture the lines.
// Thread-safe.
class Log {
 public:
  virtual ~Log() = default;
  virtual void write(std::string_view line) = 0;

  template <class... Args>
  void format(fmt::format_string<Args...> pattern, Args&&... args) {
    write(fmt::format(pattern, std::forward<Args>(args)...));
  }
};

// Analytics events: short lower-case tags such as "fail api_timeout". Thread-safe.
class Analytics {
 public:
  virtual ~Analytics() = default;
  virtual void record(std::string_view tag) = 0;
};

}  // namespace norvik
