#include "bench.h"
void bench_log_on(const Options&, Report&) {}
