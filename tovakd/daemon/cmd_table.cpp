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

// The gate and the refusal of a command are its layout's.
static constexpr cmd_entry entry(uint32_t id, command_handler handler)
{
    const tovak_layout layout = tovak_layout_of(id);
    return { id, handler, layout.gate, tovak_refusal_of(layout.reply) };
}

// clang-format off
constexpr cmd_entry cmd_table[] = {
    entry(CMD_LOG_ON,                    handler_log_on),
    entry(CMD_LOG_OFF,                   handler_log_off),
    entry(CMD_LOG_SIZE,                  handler_log_size),
    entry(CMD_OUT_PATH,                  handler_out_path),
    entry(CMD_COMMIT_LOG,                handler_commit_log),
    entry(CMD_ADD_EVENT,                 handler_add_event),
    entry(CMD_RM_EVENT,                  handler_rm_event),
    entry(CMD_GET_EVENTS,                handler_get_events),
    entry(CMD_ADD_LOG,                   handler_add_log),
    entry(CMD_RM_LOG,                    handler_rm_log),
    entry(CMD_GET_LOGS,                  handler_get_logs),
    entry(CMD_ADD_MSG,                   handler_add_msg),
    entry(CMD_RM_MSG,                    handler_rm_msg),
    entry(CMD_GET_MSG,                   handler_get_msg),
    entry(CMD_GET_BUFFER_SIZE,           handler_get_buffer_size),
    entry(CMD_GET_LOG_STATE,             handler_get_log_state),
    entry(CMD_SET_CONFIG_FILE,           handler_set_config_file),
    entry(CMD_GET_CONFIG_FILE,           handler_get_config_file),
    entry(CMD_SYSTEM_COMMAND,            handler_system_command),
    entry(CMD_GET_RANGE,                 handler_get_range),
    entry(CMD_ADBLOG_ON,                 adblog_on),
    entry(CMD_ADBLOG_OFF,                adblog_off),
    entry(CMD_ADBLOG_COMMIT,             adblog_commit),
    entry(CMD_ADBLOG_GET_STATE,          adblog_get_state),
    entry(CMD_ADBLOG_ADD_CATEGORY,       adblog_add_category),
    entry(CMD_ADBLOG_RM_CATEGORY,        adblog_rm_category),
    entry(CMD_ADBLOG_GET_CATEGORIES,     adblog_get_categories),
    entry(CMD_ADBLOG_SET_CATEGORIES,     adblog_set_categories),
    entry(CMD_ADBLOG_GET_CATEGORY_NAME,  adblog_get_category_name),
    entry(CMD_ADBLOG_SET_SIZE,           adblog_set_size_with_cat),
    entry(CMD_ADBLOG_GET_SIZE,           adblog_get_size_with_cat),
    entry(CMD_ADBLOG_GET_SIZE_LIMITS,    adblog_get_size_limits),
    entry(CMD_SET_AUTOSAVE,              handler_set_autosave),
    entry(CMD_SAVE_MODEM_DATA,           handler_save_modem_data),
    entry(CMD_SET_MSISDN,                handler_set_msisdn),
    entry(CMD_GET_AUTOSAVE,              handler_get_autosave),
    entry(CMD_DPL_SET_STATE,             handler_dpl_set_state),
    entry(CMD_DPL_GET_STATE,             handler_dpl_get_state),
    entry(CMD_DPL_GET_ALL_IF_LIST,       handler_dpl_get_all_if_list),
    entry(CMD_DPL_GET_IF_LIST,           handler_dpl_get_if_list),
    entry(CMD_DPL_SET_IF,                handler_dpl_set_if),
    entry(CMD_DPL_RESET,                 handler_dpl_reset),
    entry(CMD_DISCONNECT,                handler_dummy),
};
// clang-format on

const size_t cmd_table_size = std::size(cmd_table);

// The table's invariants, checked when it is compiled: unique ids, all of
// them reachable through the lookup, disconnect last, one entry per command
// layout; only the switches and the size and path commands answer a
// refusal, and only when gated.
static constexpr bool cmd_table_valid()
{
    constexpr size_t n = std::size(cmd_table);
    if (cmd_table[n - 1].id != CMD_DISCONNECT || n != std::size(tovak_layouts))
        return false;
    for (size_t i = 0; i < n; i++) {
        if (cmd_table[i].id > CMD_ID_MAX || !tovak_is_command(cmd_table[i].id))
            return false;
        if (cmd_table[i].gate == tovak_gate::none && cmd_table[i].refusal != tovak_refusal::untouched)
            return false;
        for (size_t j = i + 1; j < n; j++)
            if (cmd_table[i].id == cmd_table[j].id)
                return false;
    }
    return true;
}
static_assert(cmd_table_valid(),
              "command ids must be unique, at most CMD_ID_MAX, one per layout, with disconnect last");

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
static bool gate_open(tovak_gate gate, const uint8_t* rsp)
{
    switch (gate) {
    case tovak_gate::none:
        return true;
    case tovak_gate::logging:
        if (tovak_handler_initialized && rsp != nullptr)
            return true;
        TLOG_ERR("command refused: modem logging did not start, or no reply area");
        return false;
    case tovak_gate::capture:
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
    case tovak_refusal::untouched:
        break;
    case tovak_refusal::zero:
        // The length says 4 even with no reply area to write the 0 into.
        *rsp_len = 4;
        tovak_reply_u32(rsp_len, rsp, { 0 });
        break;
    case tovak_refusal::minus_one:
        tovak_reply_u32(rsp_len, rsp, { uint32_t(-1) });
        break;
    }
    return 0;
}
