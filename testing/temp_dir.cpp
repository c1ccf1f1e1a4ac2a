#include "testing/temp_dir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace norvik::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "norvik-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests may leave read-only directories behind; make them writable before removing.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
  }
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

}  // namespace norvik::testing
