// The modem mask request packets built from the configuration.
#pragma once

// Rebuilds the packets from the configuration; 0 on success, -1 when a
// packet can't be allocated.
int tovak_data_load_dm_packet();
