// Modem logging: start-up, switching logging on and off, commands 0x00 and 0x01.
#include "logging/tovak_logging.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <cutils/properties.h>
#include <mutex>

#include "common/tovak_log.h"
#include "common/tovak_mutex.h"
#include "config/tovak_config.h"
#include "handlers/tovak_dpl_cmds.h"
#include "logging/tovak_data.h"
#include "logging/tovak_diag.h"
#include "logging/tovak_packets.h"
#include "platform/diag.h"

#define LOG_MODULE "tovak_handler"

std::atomic<int32_t> tovak_log_state{ LOG_STATE_IDLE };
std::atomic<uint16_t> tovak_has_remote_device{ 0 };

// clang-format off
static const uint8_t EVENT_REPORT_OFF[] = { DIAG_CMD_EVENT_REPORT, 0 };
static const uint8_t EVENT_REPORT_ON[] = { DIAG_CMD_EVENT_REPORT, 1 };
static const uint8_t LOG_CODES_OFF[] = { DIAG_CMD_LOG_CONFIG, 0, 0, 0, LOG_CONFIG_OP_DISABLE_ALL, 0, 0, 0 };
static const uint8_t MSG_MASKS_OFF[] = { DIAG_CMD_EXT_MSG_CONFIG, EXT_MSG_SET_ALL_RT_MASKS, 0, 0, 0, 0, 0, 0 };
// clang-format on

// One switch at a time, held across the modem's answers and the save: a log
// off landing between the two passes of a log on would leave the modem half
// programmed while the state says running, and the saved states must land in
// the order of the switches. Resizing the buffer takes it too, so that
// logging can't start between its check and the resize.
static tovak_mutex switch_mutex;

// Sends one request to the local modem and drops its answer; 1 if answered.
static uint32_t request_answered(const uint8_t* pkt, uint32_t len)
{
    diag_rsp_type* rsp = tovak_diag_request(pkt, len);
    if (rsp == nullptr)
        return 0;
    diag_free_rsp(rsp);
    return 1;
}

uint32_t tovak_enable_event_report()
{
    return request_answered(EVENT_REPORT_ON, sizeof EVENT_REPORT_ON);
}

uint32_t tovak_disable_all_reports()
{
    TLOG("disable all item report\n");
    if (!request_answered(EVENT_REPORT_OFF, sizeof EVENT_REPORT_OFF) ||
        !request_answered(LOG_CODES_OFF, sizeof LOG_CODES_OFF) ||
        !request_answered(MSG_MASKS_OFF, sizeof MSG_MASKS_OFF))
        return 0;
    TLOG("successfully disabled\n");
    return 1;
}

uint32_t tovak_send_dm_packets()
{
    uint32_t sent = 0;
    for (uint32_t i = 0; i < TOVAK_MAX_PACKETS_PER_PASS; i++) {
        std::optional<tovak_packet> p = tovak_data_get_dm_packet(i);
        if (!p)
            break;
        // A packet the modem refuses or never answers is skipped, not retried.
        diag_rsp_type* rsp = tovak_diag_request(p->data(), uint32_t(p->size()));
        if (tovak_has_remote_device.load() != 0) {
            diag_rsp_type* remote = tovak_diag_request_mdm(p->data(), uint32_t(p->size()));
            if (remote != nullptr)
                diag_free_rsp(remote);
        }
        if (rsp != nullptr)
            diag_free_rsp(rsp);
        sent++;
    }
    return sent;
}

static void wait_for_boot()
{
    char value[PROPERTY_VALUE_MAX];
    property_get(TOVAK_BOOT_COMPLETE_PROPERTY, value, "");
    // Once: a phone still booting gets this long, then logging starts anyway.
    if (strcmp(value, "1") != 0)
        sleep(TOVAK_BOOT_WAIT_SECONDS);
}

uint32_t tovak_log_on()
{
    // Outside the switch lock: a phone still booting must not hold up a log
    // off for the wait.
    if (tovak_log_state != LOG_STATE_START)
        wait_for_boot();
    tovak_lock one_switch(switch_mutex);
    if (tovak_log_state == LOG_STATE_START) {
        TLOG("Current log state is already LOG_STATE_START so do nothing\n");
        return 1;
    }
    getVariousInfoOnEventLogMessage();
    diag_switch_logging(DIAG_MODE_MEMORY);
    tovak_config_reload();
    tovak_data_load_dm_packet();

    uint16_t remote = 0;
    diag_has_remote_device(&remote);
    tovak_has_remote_device = remote;
    TLOG("diag_has_remote_device = %d\n", int(remote));

    // Two passes with a full clear between them: whatever the modem held
    // before, it ends up with exactly the second pass's masks.
    tovak_enable_event_report();
    tovak_send_dm_packets();
    tovak_disable_all_reports();
    tovak_enable_event_report();
    tovak_send_dm_packets();

    tovak_dpl_select_configured();
    tovak_config_edit_and_save([](tovak_config& c) REQUIRES(tovak_config_mutex) { c.log_state = 1; });
    tovak_log_state = LOG_STATE_START;
    return 1;
}

uint32_t tovak_log_off()
{
    tovak_lock one_switch(switch_mutex);
    if (tovak_log_state != LOG_STATE_START) {
        TLOG("Current log state is not LOG_STATE_START so do nothing\n");
        TLOG_ERR("log off while logging is not on");
        return 0;
    }
    // The local modem only: a remote modem keeps its masks.
    tovak_disable_all_reports();
    diag_dpl_reset_logging();
    diag_switch_logging(DIAG_MODE_USB);
    tovak_config_edit_and_save([](tovak_config& c) REQUIRES(tovak_config_mutex) { c.log_state = 0; });
    diag_stop_logging();
    tovak_log_state = LOG_STATE_STOP;
    return 1;
}

uint32_t tovak_log_set_buffer_size(int32_t size, int* changed)
{
    tovak_lock one_switch(switch_mutex);
    // The platform resizes its buffer only while nothing is written to it.
    if (tovak_log_state == LOG_STATE_START)
        return 0;
    // Saved first: the next start-up applies it even if the platform balks now.
    tovak_config_edit_and_save([&](tovak_config& c) REQUIRES(tovak_config_mutex) { c.buffer_size = uint32_t(size); });
    *changed = diag_change_buffer_size(size);
    return 1;
}

uint32_t tovak_handler_init()
{
    if (tovak_config_init() < 0) {
        TLOG_ERR("configuration not loaded at start-up");
        return 0;
    }
    tovak_data_load_dm_packet();
    if (diag_init() < 0) {
        TLOG_ERR("diag interface not opened");
        return 0;
    }
    // Signed: a size of 2^31 or more in the file is a negative one here.
    int32_t size = int32_t(tovak_config_get_buffer_size());
    TLOG("Current Log Buffer Size %d\n", size);
    if (size < 0) {
        TLOG_ERR("configured buffer size is negative");
        return 0;
    }
    if (diag_change_buffer_size(size) == 0) {
        TLOG_ERR("buffer size not set in the diag library");
        return 0;
    }
    uint32_t log_state = tovak_config_get_log_state();
    TLOG("Current Log state = %d\n", int(log_state));
    // Neither result matters here: a modem that refuses masks still leaves
    // the daemon serving.
    if (log_state != 0)
        tovak_log_on();
    else
        tovak_log_off();
    diag_dpl_init();
    if (tovak_config_get_dpl_state())
        TLOG("Current dpl state is on\n");
    else
        TLOG("Current dpl state is off\n");
    TLOG("tovak handler is initialized successfully\n");
    tovak_handler_initialized = 1;
    return 1;
}

// Commands 0x00 and 0x01: the reply is 4 zero bytes whatever happened; a
// client reads the outcome from the log state command.
static uint32_t switch_logging(uint32_t* rsp_len, uint8_t* rsp, const char* entry_line, uint32_t (*do_switch)())
{
    TLOG("%s", entry_line);
    const uint32_t result = do_switch();
    if (result == 0)
        TLOG_ERR("logging switch failed");
    tovak_reply_u32(rsp_len, rsp, { 0 });
    return result;
}

uint32_t handler_log_on(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    return switch_logging(rsp_len, rsp, "process log_on\n", tovak_log_on);
}

uint32_t handler_log_off(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    return switch_logging(rsp_len, rsp, "process log_off\n", tovak_log_off);
}
