// What single steps of the service cost, beside the least that the same work could cost.
// ./report runs this program and judges the ratios.
#include <benchmark/benchmark.h>
#include <syslog.h>

int main(int argc, char** argv) {
  setlogmask(LOG_MASK(LOG_EMERG));  // the lines themselves are not what is measured
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
