#include "platform/files.h"

#include <chrono>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "testing/temp_dir.h"

namespace norvik {
namespace {

// Whatever stands where a file is expected is refused at once, by name, and never read.
TEST(ReadFile, OnlyARegularFileWithinItsBoundIsRead) {
  testing::TempDir dir;
  const auto fifo = dir / "widget-command.json";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto start = std::chrono::steady_clock::now();
  auto fromFifo = readFile(fifo);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << "a FIFO never blocks the read";
  ASSERT_FALSE(fromFifo.has_value());
  EXPECT_EQ(fromFifo.error().code, EINVAL);
  EXPECT_EQ(fromFifo.error().message, "open " + fifo.string() + ": not a regular file");

  auto fromDirectory = readFile(dir.path());
  ASSERT_FALSE(fromDirectory.has_value());
  EXPECT_EQ(fromDirectory.error().code, EINVAL);

  ASSERT_TRUE(writeFileAtomically(dir / "big", std::string(4096, 'x')));
  auto big = readFile(dir / "big", 4095);
  ASSERT_FALSE(big.has_value());
  EXPECT_EQ(big.error().code, EFBIG);
  EXPECT_EQ(readFile(dir / "big", 4096).value_or(""), std::string(4096, 'x'));
  EXPECT_EQ(readFile("/dev/zero").error().code, EINVAL) << "a device that never ends is not read";
}

// A FIFO at the temporary name is not written through, and the target stays as it was.
TEST(WriteFileAtomically, AFifoAtTheTemporaryNameIsRefused) {
  testing::TempDir dir;
  ASSERT_TRUE(writeFileAtomically(dir / "state.json", "old"));
  ASSERT_EQ(::mkfifo((dir / "state.json.tmp").c_str(), 0600), 0);
  auto written = writeFileAtomically(dir / "state.json", "new");
  ASSERT_FALSE(written.has_value());
  EXPECT_EQ(readFile(dir / "state.json").value_or(""), "old");
}

}  // namespace
}  // namespace norvik
