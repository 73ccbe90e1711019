// Names are case/side/parameters; scripts/bench puts the sides of a case side by side.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
