#include "daemon/cmd_table.h"

#include <iterator>

#include "adblog/adblog_cmds.h"
#include "common/tovak_log.h"
#include "config/tovak_config_cmds.h"
#include "daemon/tovak.h"
#include "handlers/tovak_handler.h"
#include "logging/tovak_logging.h"
#include "protocol/tovak_cmd_ids.h"

#define LOG_MODULE "tovak_handler"

// clang-format off
constexpr cmd_entry cmd_table[] = {
    { CMD_LOG_ON,                    handler_log_on,              cmd_gate::logging, cmd_refusal::zero },
    { CMD_LOG_OFF,                   handler_log_off,             cmd_gate::logging, cmd_refusal::zero },
    { CMD_LOG_SIZE,                  handler_log_size,            cmd_gate::logging, cmd_refusal::minus_one },
    { CMD_OUT_PATH,                  handler_out_path,            cmd_gate::logging, cmd_refusal::minus_one },
    { CMD_COMMIT_LOG,                handler_commit_log,          cmd_gate::logging, cmd_refusal::untouched },
    { CMD_ADD_EVENT,                 handler_add_event,           cmd_gate::logging, cmd_refusal::untouched },
    { CMD_RM_EVENT,                  handler_rm_event,            cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_EVENTS,                handler_get_events,          cmd_gate::logging, cmd_refusal::untouched },
    { CMD_ADD_LOG,                   handler_add_log,             cmd_gate::logging, cmd_refusal::untouched },
    { CMD_RM_LOG,                    handler_rm_log,              cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_LOGS,                  handler_get_logs,            cmd_gate::logging, cmd_refusal::untouched },
    { CMD_ADD_MSG,                   handler_add_msg,             cmd_gate::logging, cmd_refusal::untouched },
    { CMD_RM_MSG,                    handler_rm_msg,              cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_MSG,                   handler_get_msg,             cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_BUFFER_SIZE,           handler_get_buffer_size,     cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_LOG_STATE,             handler_get_log_state,       cmd_gate::logging, cmd_refusal::untouched },
    { CMD_SET_CONFIG_FILE,           handler_set_config_file,     cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_CONFIG_FILE,           handler_get_config_file,     cmd_gate::logging, cmd_refusal::untouched },
    { CMD_SYSTEM_COMMAND,            handler_system_command,      cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_RANGE,                 handler_get_range,           cmd_gate::logging, cmd_refusal::untouched },
    { CMD_ADBLOG_ON,                 adblog_on,                   cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_OFF,                adblog_off,                  cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_COMMIT,             adblog_commit,               cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_GET_STATE,          adblog_get_state,            cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_ADD_CATEGORY,       adblog_add_category,         cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_RM_CATEGORY,        adblog_rm_category,          cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_GET_CATEGORIES,     adblog_get_categories,       cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_SET_CATEGORIES,     adblog_set_categories,       cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_GET_CATEGORY_NAME,  adblog_get_category_name,    cmd_gate::none,    cmd_refusal::untouched },
    { CMD_ADBLOG_SET_SIZE,           adblog_set_size_with_cat,    cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_GET_SIZE,           adblog_get_size_with_cat,    cmd_gate::capture, cmd_refusal::untouched },
    { CMD_ADBLOG_GET_SIZE_LIMITS,    adblog_get_size_limits,      cmd_gate::logging, cmd_refusal::untouched },
    { CMD_SET_AUTOSAVE,              handler_set_autosave,        cmd_gate::logging, cmd_refusal::untouched },
    { CMD_SAVE_MODEM_DATA,           handler_save_modem_data,     cmd_gate::logging, cmd_refusal::untouched },
    { CMD_SET_MSISDN,                handler_set_msisdn,          cmd_gate::logging, cmd_refusal::untouched },
    { CMD_GET_AUTOSAVE,              handler_get_autosave,        cmd_gate::logging, cmd_refusal::untouched },
    { CMD_DPL_SET_STATE,             handler_dpl_set_state,       cmd_gate::logging, cmd_refusal::untouched },
    { CMD_DPL_GET_STATE,             handler_dpl_get_state,       cmd_gate::logging, cmd_refusal::untouched },
    { CMD_DPL_GET_ALL_IF_LIST,       handler_dpl_get_all_if_list, cmd_gate::logging, cmd_refusal::untouched },
    { CMD_DPL_GET_IF_LIST,           handler_dpl_get_if_list,     cmd_gate::logging, cmd_refusal::untouched },
    { CMD_DPL_SET_IF,                handler_dpl_set_if,          cmd_gate::logging, cmd_refusal::untouched },
    { CMD_DPL_RESET,                 handler_dpl_reset,           cmd_gate::logging, cmd_refusal::untouched },
    { CMD_DISCONNECT,                handler_dummy,               cmd_gate::none,    cmd_refusal::untouched },
};
// clang-format on

const size_t cmd_table_size = std::size(cmd_table);

// The table's invariants, checked when it is compiled: unique ids, all of
// them reachable through the lookup, disconnect last; only the switches
// and the size and path commands answer a refusal, and only when gated.
static constexpr bool cmd_table_valid()
{
    constexpr size_t n = std::size(cmd_table);
    if (cmd_table[n - 1].id != CMD_DISCONNECT)
        return false;
    for (size_t i = 0; i < n; i++) {
        if (cmd_table[i].id > CMD_ID_MAX)
            return false;
        if (cmd_table[i].gate == cmd_gate::none && cmd_table[i].refusal != cmd_refusal::untouched)
            return false;
        for (size_t j = i + 1; j < n; j++)
            if (cmd_table[i].id == cmd_table[j].id)
                return false;
    }
    return true;
}
static_assert(cmd_table_valid(), "command ids must be unique, at most CMD_ID_MAX, with disconnect last");

const cmd_entry* find_cmd(uint32_t id)
{
    if (id > CMD_ID_MAX) {
        TLOG_ERR("command id past the last one");
        return nullptr;
    }
    for (const cmd_entry& e : cmd_table) {
        if (e.id == id)
            return &e;
    }
    TLOG("invalid cmd\n");
    TLOG_ERR("command id not in the table");
    return nullptr;
}

command_handler find_cmd_handler(uint32_t id)
{
    const cmd_entry* e = find_cmd(id);
    return e == nullptr ? nullptr : e->handler;
}

// A closed gate logs its ERR line, one line for each flag, so that the log
// tells which start-up step was missing.
static bool gate_open(cmd_gate gate, const uint8_t* rsp)
{
    switch (gate) {
    case cmd_gate::none:
        return true;
    case cmd_gate::logging:
        if (tovak_handler_initialized && rsp != nullptr)
            return true;
        TLOG_ERR("command refused: modem logging did not start, or no reply area");
        return false;
    case cmd_gate::capture:
        if (adblog_handler_initialized && rsp != nullptr)
            return true;
        TLOG_ERR("command refused: capture did not start, or no reply area");
        return false;
    }
    return false;
}

uint32_t cmd_run(const cmd_entry& cmd, uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    if (gate_open(cmd.gate, rsp))
        return cmd.handler(req_len, req, rsp_len, rsp);
    switch (cmd.refusal) {
    case cmd_refusal::untouched:
        break;
    case cmd_refusal::zero:
        // The length says 4 even with no reply area to write the 0 into.
        *rsp_len = 4;
        tovak_reply_u32(rsp_len, rsp, { 0 });
        break;
    case cmd_refusal::minus_one:
        tovak_reply_u32(rsp_len, rsp, { uint32_t(-1) });
        break;
    }
    return 0;
}
