#include "platform/store_reset.h"

#include <cstdio>
#include <sys/stat.h>

namespace norvik {

std::filesystem::path setDamagedFileAside(const std::filesystem::path& file) {
  auto aside = file;
  aside += ".damaged";
  if (std::rename(file.c_str(), aside.c_str()) != 0) return {};
  (void)::chmod(aside.c_str(), 0600);
  return aside;
}

}  // namespace norvik
