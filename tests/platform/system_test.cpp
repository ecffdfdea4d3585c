#include <cstring>
#include <fstream>
#include <string>

#include <cpuid.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/processor_count.h"
#include "veskrt/system.h"

namespace {

uint32_t count(const std::string& stat, const std::string& cpuinfo) {
  std::remove("stat");
  if (!stat.empty()) std::ofstream("stat") << stat;
  if (!cpuinfo.empty()) std::ofstream("cpuinfo") << cpuinfo;
  return vesk::countProcessors("stat", "cpuinfo");
}

} // namespace

TEST(Processors, AreCountedByLines) {
  EXPECT_EQ(count("", ""), 0u);
  const std::string three = "cpu  1 2 3\ncpu0 1 1\ncpu1 1 1\ncpu12 1 1\n";
  // A line longer than the buffer, whose rest reads as the beginning of another.
  const std::string entry = "processor : 0\n" + std::string(1023, 'f') + "processor\n\n";
  EXPECT_EQ(count(three + "intr 5\ncpu3 1\n", entry), 3u);
  EXPECT_EQ(count(three + "cpufreq\ncpu3", entry), 4u) << "no digit, and no end of line at the end";
  EXPECT_EQ(count("", entry + entry + "vendor\n" + entry + "processor"), 4u);
  EXPECT_GE(__VeskGetNProcs(), 1u);
}

TEST(Processor, TellsAboutItself) {
  VeskCpuid expected, result;
  for (const uint32_t subleaf : {1u, 0u}) {
    __cpuid_count(13, subleaf, expected.eax, expected.ebx, expected.ecx, expected.edx);
    __VeskCpuidEx(13, subleaf, &result);
    EXPECT_EQ(std::memcmp(&result, &expected, sizeof result), 0) << subleaf;
  }
  __VeskCpuidEx(0, 0, nullptr);
  const bool known = __get_cpuid_max(0, nullptr) > 12 && result.ecx != 0;
  for (int call = 0; call < 2; ++call) EXPECT_EQ(__VeskGetXsaveAreaMaxSize(), known ? result.ecx : 512);
  for (int call = 0; call < 2; ++call)
    EXPECT_EQ(__VeskGetNativePageSize(), static_cast<uint32_t>(getpagesize()));
}
