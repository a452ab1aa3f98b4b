// Commands of the mask lists, DPL and the device utilities.
#pragma once

#include "common/tovak_cmd.h"

// Event, log and message masks.
TOVAK_HANDLER(handler_add_event);
TOVAK_HANDLER(handler_rm_event);
TOVAK_HANDLER(handler_get_events);
TOVAK_HANDLER(handler_add_log);
TOVAK_HANDLER(handler_rm_log);
TOVAK_HANDLER(handler_get_logs);
TOVAK_HANDLER(handler_add_msg);
TOVAK_HANDLER(handler_rm_msg);
TOVAK_HANDLER(handler_get_msg);

// DPL interfaces.
TOVAK_HANDLER(handler_dpl_set_state);
TOVAK_HANDLER(handler_dpl_get_state);
TOVAK_HANDLER(handler_dpl_get_all_if_list);
TOVAK_HANDLER(handler_dpl_get_if_list);
TOVAK_HANDLER(handler_dpl_set_if);
TOVAK_HANDLER(handler_dpl_reset);

// Device utilities.
TOVAK_HANDLER(handler_system_command);
TOVAK_HANDLER(handler_set_autosave);
TOVAK_HANDLER(handler_save_modem_data);
TOVAK_HANDLER(handler_set_msisdn);
TOVAK_HANDLER(handler_get_autosave);
