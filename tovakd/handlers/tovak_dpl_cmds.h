// DPL interface commands.
#pragma once

#include <cstdint>

#include "platform/diag.h"

// The interface logging record for one interface: four entries, kinds 1 and
// 2 each in variants 0 and 1; every byte the record does not set is zero.
void tovak_dpl_iface_record(uint8_t ifid, uint8_t record[DIAG_DPL_IFACE_RECORD_SIZE]);

// Starts logging of every configured interface, in ascending order.
void tovak_dpl_start_configured_ifaces();
