#include "logging/tovak_data.h"

// The mask packets are built by the modem logging code; nothing to build yet.
int tovak_data_load_dm_packet()
{
    return 0;
}
