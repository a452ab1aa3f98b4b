#include <cstdio>

#include "daemon/tovak.h"

int main()
{
    // The log lines go to the descriptor, one write each. The few lines
    // printed through stdio must leave it whole as they end, in order with
    // them.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return tovak_main();
}
