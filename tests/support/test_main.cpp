// Every test runs in a directory of its own, gone when it ends.
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::string directory = std::filesystem::temp_directory_path() / "vesk-test-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory);
  const int result = RUN_ALL_TESTS();
  std::filesystem::current_path(before);
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return result;
}
