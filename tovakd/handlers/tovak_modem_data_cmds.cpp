// Modem data save, subscriber number and the autosave property.
#include "handlers/tovak_modem_data_cmds.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "protocol/byte_buffer.h"
#include "daemon/tovak_log.h"
#include "handlers/tovak_handler.h"
#include "platform/properties.h"
#include "platform/qmi_tovak.h"

#define LOG_MODULE "tovak_handler"

// The number the next save is tagged with; kept until the next 0x48 or exit.
static char msisdn_buffer[MSISDN_BUFFER_SIZE];
static std::mutex msisdn_mutex;

// The units of one 0x47, in order.
static uint8_t modem_data_buffer[MODEM_DATA_BUFFER_SIZE];
// One 0x47 at a time: two would interleave their units in the one buffer.
static std::mutex modem_data_mutex;

uint32_t handler_set_autosave(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    *rsp_len = 0;
    byte_buffer in;
    byte_buffer_init(&in, req, req_len);
    uint32_t value = 0;
    byte_buffer_read_u32(&in, &value);
    property_set(TOVAK_AUTOSAVE_PROPERTY, value == 1 ? "1" : "0");
    TLOG("Autosave State set\n");
    return 1;
}

uint32_t handler_get_autosave(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(TOVAK_AUTOSAVE_PROPERTY, value, "1");
    byte_buffer out;
    byte_buffer_init(&out, rsp, *rsp_len);
    byte_buffer_write_u32(&out, uint32_t(atoi(value)));
    *rsp_len = byte_buffer_length(&out);
    return 1;
}

uint32_t handler_set_msisdn(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    *rsp_len = 0;
    byte_buffer in;
    byte_buffer_init(&in, req, req_len);
    uint16_t field = 0;
    byte_buffer_read_u16(&in, &field);
    const int16_t n = int16_t(field);
    if (n > MSISDN_MAX_LEN) {
        TLOG_ERR();
        return 0;
    }
    char text[MSISDN_BUFFER_SIZE];
    {
        std::lock_guard<std::mutex> hold(msisdn_mutex);
        // Bytes past the new number keep the old ones; its zero byte ends the
        // text. A negative count is refused by the reader and copies nothing.
        byte_buffer_read_bytes(&in, msisdn_buffer, uint32_t(int32_t(n)));
        memcpy(text, msisdn_buffer, sizeof text);
    }
    TLOG("get MSISDN info = %d, %s\n", int(n), text);
    return 1;
}

// Gathers the units of a kind into modem_data_buffer; the bytes kept.
static uint32_t gather_modem_data(uint32_t kind)
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

uint32_t handler_save_modem_data(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    *rsp_len = 0;
    byte_buffer in;
    byte_buffer_init(&in, req, req_len);
    uint32_t kind = MODEM_DATA_KIND_PHANTOM;
    byte_buffer_read_u32(&in, &kind);

    std::lock_guard<std::mutex> hold(modem_data_mutex);
    qmi_tovak_init();
    uint32_t total = gather_modem_data(kind);
    char number[MSISDN_BUFFER_SIZE];
    {
        std::lock_guard<std::mutex> hold_number(msisdn_mutex);
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
