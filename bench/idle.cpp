#include "bench.h"
void bench_idle_sessions(const Options&, Report&) {}
