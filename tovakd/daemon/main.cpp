#include <cstdio>

#include "daemon/tovak.h"

int main()
{
    // stdout is often a pipe to a supervisor; keep its lines timely.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return tovak_main();
}
