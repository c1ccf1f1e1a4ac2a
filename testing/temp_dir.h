#pragma once

#include <filesystem>

namespace norvik::testing {

// A fresh directory under the system's temporary directory, removed with everything in it.
class TempDir {
 public:
  TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir();

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::filesystem::path operator/(const std::filesystem::path& child) const { return path_ / child; }

 private:
  std::filesystem::path path_;
};

}  // namespace norvik::testing
