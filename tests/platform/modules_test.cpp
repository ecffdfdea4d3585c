#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/test_host.h"
#include "veskrt/modules.h"
#include "veskrt/runtime.h"

static int randCalls = 0, randResult = 0;

// Stands before the C library's own for the library under test.
extern "C" int rand() noexcept {
  ++randCalls;
  return randResult;
}

TEST(ModuleMap, HasElevenLevelsAtMostAndFallsWhenTheyEmpty) {
  test::installHost();
  // How often registering 30 modules asks for a random number: each does unless the top level is in use.
  const auto load = [](uint64_t first, int result) {
    randCalls = 0;
    randResult = result;
    for (uint64_t i = 0; i < 30; ++i) __VeskLoadModule(i, first + i, first + i + 1);
    return randCalls;
  };
  EXPECT_EQ(load(0x1000, 214748364), 30) << "just not a raise";
  EXPECT_EQ(load(0x2000, 214748363), 10);
  for (uint64_t i = 0; i < 30; ++i) __VeskUnloadModule(0, 0x1000 + i);
  EXPECT_EQ(load(0x1000, 0), 0) << "the tall entries are still there";
  for (uint64_t i = 0; i < 60; ++i) __VeskUnloadModule(0, (i < 30 ? 0x1000 : 0x2000) + i % 30);
  EXPECT_EQ(load(0x1000, 0), 10) << "from the bottom again";
}

TEST(Mappings, AreFoundWithTheirEndIncluded) {
  test::installHost();
  const auto page = static_cast<uint64_t>(getpagesize());
  auto* const pages =
      static_cast<char*>(mmap(nullptr, 4 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(pages + page, page, PROT_READ);
  mprotect(pages + 2 * page, page, PROT_READ | PROT_WRITE);
  const auto start = reinterpret_cast<uint64_t>(pages);
  uint64_t end = 99;
  EXPECT_EQ(__VeskGetModuleAddressRange(16, &end), 0u);
  EXPECT_EQ(end, 99u);
  EXPECT_EQ(__VeskGetModuleAddressRange(start + 2 * page, &end), start + page) << "the lower of two";
  EXPECT_EQ(end, start + 2 * page);
  EXPECT_EQ(__VeskGetThreadStackBaseAndSize(start + 2 * page + 1, &end), page);
  EXPECT_EQ(end, start + 3 * page);
  EXPECT_EQ(__VeskGetModuleAddressRange(start + page, nullptr), 0u);
  __VeskSetGetPidProc(nullptr);
  EXPECT_EQ(__VeskGetThreadStackBaseAndSize(start + page, &end), 0u);
  EXPECT_EQ(end, 0u);
}

TEST(Images, AreLoadedAndSearched) {
  EXPECT_EQ(__VeskRtLoadImage("./missing.so"), nullptr);
  void* const image = __VeskRtLoadImage("libm.so.6");
  EXPECT_EQ(__VeskRtGetSymbol(image, "noSuchSymbol"), nullptr);
  EXPECT_EQ(reinterpret_cast<double (*)(double)>(__VeskRtGetSymbol(image, "sqrt"))(4), 2);
  EXPECT_EQ(__VeskRtGetSymbol(nullptr, "getpid"), nullptr) << "the loader takes null for a handle";
}
