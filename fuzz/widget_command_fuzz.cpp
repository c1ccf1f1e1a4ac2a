// Any bytes as the widget's command file: decoding never crashes, and a command that decodes
// survives being written and read again unchanged (the date keeps its milliseconds).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tunnel/widget_files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto command = norvik::decodeWidgetCommand(text)) {
    if (norvik::decodeWidgetCommand(norvik::encodeWidgetCommand(*command)) != *command) std::abort();
  }
  if (auto date = norvik::parseWidgetDate(text)) {
    if (norvik::parseWidgetDate(norvik::formatWidgetDate(*date)) != *date) std::abort();
  }
  return 0;
}
