#include "bench.h"
void bench_edits(const Options&, Report&) {}
