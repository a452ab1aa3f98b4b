// Modem data save, subscriber number and the autosave property.
#include <cstdlib>
#include <cstring>
#include <cutils/properties.h>
#include <mutex>

#include "common/tovak_cmd.h"
#include "common/tovak_log.h"
#include "common/tovak_mutex.h"
#include "handlers/tovak_handler.h"
#include "platform/qmi_tovak.h"
#include "protocol/tovak_layouts.h"

#define LOG_MODULE "tovak_handler"

// "1" or "0"; unset reads as "1". Read by a component outside the daemon.
#define TOVAK_AUTOSAVE_PROPERTY "persist.dmlogging.phantom"

// Kinds of modem data (the u32 of command 0x47) and the names they are
// saved under, spelled as the QMI library knows them.
#define MODEM_DATA_KIND_PHANTOM TOVAK_MODEM_DATA_PHANTOM
#define MODEM_DATA_KIND_STATISTICS TOVAK_MODEM_DATA_STATISTICS
#define MODEM_DATA_NAME_PHANTOM "Phantom"
#define MODEM_DATA_NAME_STATISTICS "Statstics"

// Where 0x47 gathers the units; copying stops at its end.
#define MODEM_DATA_BUFFER_SIZE 500000
// Saved when the modem has no phantom data.
#define PHANTOM_DEFAULT_RECORD "000000000000,ND,N,0,0,"

#define MSISDN_BUFFER_SIZE 24
static_assert(MSISDN_BUFFER_SIZE >= TOVAK_MSISDN_COUNT_MAX, "the longest number fits");

// Guards msisdn_buffer.
static tovak_mutex msisdn_mutex;
// The number the next save is tagged with; kept until the next 0x48 or exit.
static char msisdn_buffer[MSISDN_BUFFER_SIZE] GUARDED_BY(msisdn_mutex);

// One 0x47 at a time: two would interleave their units in the one buffer.
static tovak_mutex modem_data_mutex;
// The units of one 0x47, in order.
static uint8_t modem_data_buffer[MODEM_DATA_BUFFER_SIZE] GUARDED_BY(modem_data_mutex);

uint32_t handler_set_autosave(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    *rsp_len = 0;
    const uint32_t value = tovak_request(req, req_len).u32();
    property_set(TOVAK_AUTOSAVE_PROPERTY, value == 1 ? "1" : "0");
    TLOG("Autosave State set\n");
    return 1;
}

uint32_t handler_get_autosave(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(TOVAK_AUTOSAVE_PROPERTY, value, "1");
    tovak_reply_u32(rsp_len, rsp, { uint32_t(atoi(value)) });
    return 1;
}

uint32_t handler_set_msisdn(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    *rsp_len = 0;
    tovak_request in(req, req_len);
    const int16_t n = int16_t(in.u16());
    if (n > TOVAK_MSISDN_COUNT_MAX) {
        TLOG_ERR("MSISDN too long");
        return 0;
    }
    char text[MSISDN_BUFFER_SIZE];
    {
        tovak_lock hold(msisdn_mutex);
        // Bytes past the new number keep the old ones; its zero byte ends the
        // text. A negative count is refused by the reader and copies nothing.
        in.bytes(msisdn_buffer, uint32_t(int32_t(n)));
        memcpy(text, msisdn_buffer, sizeof text);
    }
    TLOG("get MSISDN info = %d, %s\n", int(n), text);
    return 1;
}

// Gathers the units of a kind into modem_data_buffer; the bytes kept.
static uint32_t gather_modem_data(uint32_t kind) REQUIRES(modem_data_mutex)
{
    uint32_t total = 0;
    uint32_t index = 0;
    int len;
    uint32_t unit_count;
    do {
        // Cleared first, so that a call that stores nothing leaves nothing to
        // copy or free twice.
        void* data = nullptr;
        unit_count = 0;
        len = qmi_tovak_get_data(kind, &data, index, &unit_count);
        index++;
        TLOG("Recieved Info : len = %d, all_data_len = %d, unit_cnt = %d", len, int(total), int(unit_count));
        if (len > 0 && data != nullptr) {
            uint32_t room = MODEM_DATA_BUFFER_SIZE - total;
            uint32_t n = uint32_t(len) < room ? uint32_t(len) : room;
            memcpy(modem_data_buffer + total, data, n);
            total += n;
        }
        free(data);
        // A full buffer ends the gathering too: nothing more could be kept,
        // and a library that never says "last" can't hold the client.
    } while (unit_count != 0 && len > 0 && total < MODEM_DATA_BUFFER_SIZE);
    return total;
}

uint32_t handler_save_modem_data(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    *rsp_len = 0;
    const uint32_t kind = tovak_request(req, req_len).u32();

    tovak_lock hold(modem_data_mutex);
    qmi_tovak_init();
    uint32_t total = gather_modem_data(kind);
    char number[MSISDN_BUFFER_SIZE];
    {
        tovak_lock hold_number(msisdn_mutex);
        memcpy(number, msisdn_buffer, sizeof number);
    }
    if (kind == MODEM_DATA_KIND_PHANTOM) {
        if (total == 0) {
            memcpy(modem_data_buffer, PHANTOM_DEFAULT_RECORD, sizeof PHANTOM_DEFAULT_RECORD);
            total = sizeof PHANTOM_DEFAULT_RECORD - 1;
        }
        qmi_tovak_save_log(MODEM_DATA_NAME_PHANTOM, modem_data_buffer, total, number);
        TLOG("PHANTOM Logging file saved\n");
    } else if (kind == MODEM_DATA_KIND_STATISTICS) {
        // Saved even when empty: the file then says there was nothing.
        qmi_tovak_save_log(MODEM_DATA_NAME_STATISTICS, modem_data_buffer, total, number);
        TLOG("Stastics file saved\n");
    }
    qmi_tovak_deinit();
    return 1;
}
