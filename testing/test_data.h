#pragma once

#include <string>
#include <string_view>

namespace norvik::testing {

// The contents of a file under testing/data (realistic backend documents and the like).
[[nodiscard]] std::string readTestData(std::string_view name);

}  // namespace norvik::testing
