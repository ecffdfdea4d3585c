#include <benchmark/benchmark.h>

#include "veskrt/host.h"

void registerRows();

int main(int argc, char** argv) {
  veskHostInstall();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerRows();
  benchmark::RunSpecifiedBenchmarks();
}
