// Data-path logging (DPL) in the modem, for the DPL commands and log on.
#pragma once

#include <cstdint>

// Starts logging of one interface in the modem at once, whatever the state,
// and adds it to the configured interfaces.
void tovak_dpl_add_iface(uint16_t id);

// When the configured DPL state is on, starts every configured interface in
// ascending order.
void tovak_dpl_select_configured();
