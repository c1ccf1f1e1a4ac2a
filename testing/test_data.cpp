#include "testing/test_data.h"

#include <stdexcept>

#include "platform/files.h"

namespace norvik::testing {

std::string readTestData(std::string_view name) {
  auto text = readFile(std::filesystem::path(NORVIK_TEST_DATA_DIR) / name);
  if (!text) throw std::runtime_error("test data: " + text.error().message);
  return *text;
}

}  // namespace norvik::testing
