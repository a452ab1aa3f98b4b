// Modem data save, subscriber number and the autosave property.
#pragma once

// "1" or "0"; unset reads as "1". Read by a component outside the daemon.
#define TOVAK_AUTOSAVE_PROPERTY "persist.dmlogging.phantom"

// Kinds of modem data (the u32 of command 0x47) and the names they are
// saved under, spelled as the QMI library knows them.
#define MODEM_DATA_KIND_PHANTOM 0u
#define MODEM_DATA_KIND_STATISTICS 1u
#define MODEM_DATA_NAME_PHANTOM "Phantom"
#define MODEM_DATA_NAME_STATISTICS "Statstics"

// Where 0x47 gathers the units; copying stops at its end.
#define MODEM_DATA_BUFFER_SIZE 500000
// Saved when the modem has no phantom data.
#define PHANTOM_DEFAULT_RECORD "000000000000,ND,N,0,0,"

#define MSISDN_BUFFER_SIZE 24
// Longest number 0x48 takes, its zero byte included.
#define MSISDN_MAX_LEN 19
