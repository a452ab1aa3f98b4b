// Every client command handler and the start-up flags that gate them.
#pragma once

#include <cstdint>

#include "daemon/cmd_table.h"

// Set once at start-up; gate T and gate A of the command table.
extern uint8_t tovak_handler_initialized;
extern uint8_t adblog_handler_initialized;

uint32_t tovak_handler_init();
uint32_t adblog_handler_init();

// Gate T and gate A: the start-up step is done and there is a reply area.
inline bool tovak_gate_t(const uint8_t* rsp)
{
    return tovak_handler_initialized && rsp != nullptr;
}
inline bool tovak_gate_a(const uint8_t* rsp)
{
    return adblog_handler_initialized && rsp != nullptr;
}

#define TOVAK_HANDLER(name) uint32_t name(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)

// Modem logging.
TOVAK_HANDLER(handler_log_on);
TOVAK_HANDLER(handler_log_off);
TOVAK_HANDLER(handler_log_size);
TOVAK_HANDLER(handler_out_path);
TOVAK_HANDLER(handler_commit_log);
TOVAK_HANDLER(handler_get_buffer_size);
TOVAK_HANDLER(handler_get_log_state);
TOVAK_HANDLER(handler_get_range);

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

// Configuration file.
TOVAK_HANDLER(handler_set_config_file);
TOVAK_HANDLER(handler_get_config_file);

// Device utilities.
TOVAK_HANDLER(handler_system_command);
TOVAK_HANDLER(handler_set_autosave);
TOVAK_HANDLER(handler_save_modem_data);
TOVAK_HANDLER(handler_set_msisdn);
TOVAK_HANDLER(handler_get_autosave);

// Android log capture.
TOVAK_HANDLER(adblog_on);
TOVAK_HANDLER(adblog_off);
TOVAK_HANDLER(adblog_commit);
TOVAK_HANDLER(adblog_get_state);
TOVAK_HANDLER(adblog_add_category);
TOVAK_HANDLER(adblog_rm_category);
TOVAK_HANDLER(adblog_get_categories);
TOVAK_HANDLER(adblog_set_categories);
TOVAK_HANDLER(adblog_get_category_name);
TOVAK_HANDLER(adblog_set_size_with_cat);
TOVAK_HANDLER(adblog_get_size_with_cat);
TOVAK_HANDLER(adblog_get_size_limits);

// DPL interfaces.
TOVAK_HANDLER(handler_dpl_set_state);
TOVAK_HANDLER(handler_dpl_get_state);
TOVAK_HANDLER(handler_dpl_get_all_if_list);
TOVAK_HANDLER(handler_dpl_get_if_list);
TOVAK_HANDLER(handler_dpl_set_if);
TOVAK_HANDLER(handler_dpl_reset);

// Disconnect; lives beside the session and is never reached from a client.
TOVAK_HANDLER(handler_dummy);

// A command whose subsystem is not built yet: it refuses and leaves the reply
// untouched, as every refusal does.
#define TOVAK_HANDLER_NOT_BUILT(name) \
    TOVAK_HANDLER(name)               \
    {                                 \
        (void)req_len;                \
        (void)req;                    \
        (void)rsp_len;                \
        (void)rsp;                    \
        return 0;                     \
    }
