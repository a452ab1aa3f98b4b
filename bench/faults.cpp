#include "bench.h"
void bench_faults(const Options&, Report&) {}
