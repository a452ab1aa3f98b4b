#include "daemon/cmd_table.h"

#include "adblog/adblog_cmds.h"
#include "common/tovak_log.h"
#include "config/tovak_config_cmds.h"
#include "daemon/tovak.h"
#include "handlers/tovak_handler.h"
#include "logging/tovak_logging.h"
#include "protocol/tovak_cmd_ids.h"

#define LOG_MODULE "tovak_handler"

// clang-format off
constexpr cmd_entry cmd_table[CMD_TABLE_SIZE] = {
    { CMD_LOG_ON, handler_log_on },
    { CMD_LOG_OFF, handler_log_off },
    { CMD_LOG_SIZE, handler_log_size },
    { CMD_OUT_PATH, handler_out_path },
    { CMD_COMMIT_LOG, handler_commit_log },
    { CMD_ADD_EVENT, handler_add_event },
    { CMD_RM_EVENT, handler_rm_event },
    { CMD_GET_EVENTS, handler_get_events },
    { CMD_ADD_LOG, handler_add_log },
    { CMD_RM_LOG, handler_rm_log },
    { CMD_GET_LOGS, handler_get_logs },
    { CMD_ADD_MSG, handler_add_msg },
    { CMD_RM_MSG, handler_rm_msg },
    { CMD_GET_MSG, handler_get_msg },
    { CMD_GET_BUFFER_SIZE, handler_get_buffer_size },
    { CMD_GET_LOG_STATE, handler_get_log_state },
    { CMD_SET_CONFIG_FILE, handler_set_config_file },
    { CMD_GET_CONFIG_FILE, handler_get_config_file },
    { CMD_SYSTEM_COMMAND, handler_system_command },
    { CMD_GET_RANGE, handler_get_range },
    { CMD_ADBLOG_ON, adblog_on },
    { CMD_ADBLOG_OFF, adblog_off },
    { CMD_ADBLOG_COMMIT, adblog_commit },
    { CMD_ADBLOG_GET_STATE, adblog_get_state },
    { CMD_ADBLOG_ADD_CATEGORY, adblog_add_category },
    { CMD_ADBLOG_RM_CATEGORY, adblog_rm_category },
    { CMD_ADBLOG_GET_CATEGORIES, adblog_get_categories },
    { CMD_ADBLOG_SET_CATEGORIES, adblog_set_categories },
    { CMD_ADBLOG_GET_CATEGORY_NAME, adblog_get_category_name },
    { CMD_ADBLOG_SET_SIZE, adblog_set_size_with_cat },
    { CMD_ADBLOG_GET_SIZE, adblog_get_size_with_cat },
    { CMD_ADBLOG_GET_SIZE_LIMITS, adblog_get_size_limits },
    { CMD_SET_AUTOSAVE, handler_set_autosave },
    { CMD_SAVE_MODEM_DATA, handler_save_modem_data },
    { CMD_SET_MSISDN, handler_set_msisdn },
    { CMD_GET_AUTOSAVE, handler_get_autosave },
    { CMD_DPL_SET_STATE, handler_dpl_set_state },
    { CMD_DPL_GET_STATE, handler_dpl_get_state },
    { CMD_DPL_GET_ALL_IF_LIST, handler_dpl_get_all_if_list },
    { CMD_DPL_GET_IF_LIST, handler_dpl_get_if_list },
    { CMD_DPL_SET_IF, handler_dpl_set_if },
    { CMD_DPL_RESET, handler_dpl_reset },
    { CMD_DISCONNECT, handler_dummy },
};
// clang-format on

// The table's invariants, checked when it is compiled: unique ids, all of
// them reachable through the lookup, disconnect last.
static constexpr bool cmd_table_valid()
{
    if (cmd_table[CMD_TABLE_SIZE - 1].id != CMD_DISCONNECT)
        return false;
    for (size_t i = 0; i < CMD_TABLE_SIZE; i++) {
        if (cmd_table[i].id > CMD_ID_MAX)
            return false;
        for (size_t j = i + 1; j < CMD_TABLE_SIZE; j++)
            if (cmd_table[i].id == cmd_table[j].id)
                return false;
    }
    return true;
}
static_assert(cmd_table_valid(), "command ids must be unique, at most CMD_ID_MAX, with disconnect last");

command_handler find_cmd_handler(uint32_t id)
{
    if (id > CMD_ID_MAX) {
        TLOG_ERR();
        return nullptr;
    }
    for (const cmd_entry& e : cmd_table) {
        if (e.id == id)
            return e.handler;
    }
    TLOG("invalid cmd\n");
    TLOG_ERR();
    return nullptr;
}
