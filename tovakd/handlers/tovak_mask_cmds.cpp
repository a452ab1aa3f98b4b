// Event, log-code and message-level commands. Edits change the configuration
// and rewrite its file at once; the modem sees them at the next log on.
#include <cstdlib>
#include <vector>

#include "config/tovak_config.h"
#include "protocol/byte_buffer.h"
#include "daemon/tovak_log.h"
#include "handlers/tovak_handler.h"

#define LOG_MODULE "tovak_handler"

// Listed message entry: u16 SSID, 2 bytes padding, u32 level mask.
#define MSG_ENTRY_SIZE 8
// Listings carry only the low 16 bits of a level mask.
#define MSG_LISTED_MASK 0xffffu


// The common start of an edit: the gate, an empty reply, and the request
// read as it comes; a field the request does not hold stays 0.
static bool begin_edit(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp, byte_buffer* in)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return false;
    }
    *rsp_len = 0;
    *in = {};
    byte_buffer_init(in, req, req_len);
    return true;
}

static uint16_t read_u16(byte_buffer* in)
{
    uint16_t v = 0;
    byte_buffer_read_u16(in, &v);
    return v;
}

static uint32_t read_u32(byte_buffer* in)
{
    uint32_t v = 0;
    byte_buffer_read_u32(in, &v);
    return v;
}

// Writes the listing whole or not at all: a list that does not fit the
// reply leaves it empty rather than cut.
static void write_listing(const std::vector<uint8_t>& bytes, uint32_t* rsp_len, uint8_t* rsp)
{
    byte_buffer out = {};
    byte_buffer_init(&out, rsp, *rsp_len);
    if (!bytes.empty())
        byte_buffer_write_bytes(&out, bytes.data(), uint32_t(bytes.size()));
    *rsp_len = byte_buffer_length(&out);
}

// Replies with a copy of an id set, u16 each; frees the copy.
static uint32_t reply_ids(uint16_t* ids, int count, uint32_t* rsp_len, uint8_t* rsp)
{
    if (ids == nullptr) {
        TLOG_ERR();
        return 0;
    }
    if (count < 0) {
        TLOG_ERR();
        free(ids);
        return 0;
    }
    std::vector<uint8_t> bytes;
    bytes.reserve(size_t(count) * 2);
    for (int i = 0; i < count; i++) {
        bytes.push_back(uint8_t(ids[i]));
        bytes.push_back(uint8_t(ids[i] >> 8));
    }
    write_listing(bytes, rsp_len, rsp);
    free(ids);
    return 1;
}

uint32_t handler_add_event(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    byte_buffer in;
    if (!begin_edit(req_len, req, rsp_len, rsp, &in))
        return 0;
    uint16_t id = read_u16(&in);
    TLOG("handler_add_event, event id = %d\n", int(id));
    tovak_config_edit_and_save([&] { tovak_config_add_event(id); });
    return 1;
}

uint32_t handler_rm_event(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    byte_buffer in;
    if (!begin_edit(req_len, req, rsp_len, rsp, &in))
        return 0;
    uint16_t id = read_u16(&in);
    TLOG("handler_rm_event, event id = %d\n", int(id));
    tovak_config_edit_and_save([&] { tovak_config_rm_event(id); });
    return 1;
}

uint32_t handler_get_events(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    TLOG("handler_get_events output length = %d\n", int(*rsp_len));
    uint16_t* ids = nullptr;
    int count = -1;
    tovak_config_get_events(&ids, &count);
    return reply_ids(ids, count, rsp_len, rsp);
}

uint32_t handler_add_log(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    byte_buffer in;
    if (!begin_edit(req_len, req, rsp_len, rsp, &in))
        return 0;
    uint16_t code = read_u16(&in);
    TLOG("handler_add_log, log id = %d\n", int(code));
    tovak_config_edit_and_save([&] { tovak_config_add_log(code); });
    return 1;
}

uint32_t handler_rm_log(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    byte_buffer in;
    if (!begin_edit(req_len, req, rsp_len, rsp, &in))
        return 0;
    uint16_t code = read_u16(&in);
    TLOG("handler_rm_log, log id = %d\n", int(code));
    tovak_config_edit_and_save([&] { tovak_config_rm_log(code); });
    return 1;
}

uint32_t handler_get_logs(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    TLOG("handler_get_logs output length = %d\n", int(*rsp_len));
    uint16_t* codes = nullptr;
    int count = -1;
    tovak_config_get_logs(&codes, &count);
    return reply_ids(codes, count, rsp_len, rsp);
}

uint32_t handler_add_msg(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    byte_buffer in;
    if (!begin_edit(req_len, req, rsp_len, rsp, &in))
        return 0;
    uint16_t ssid = read_u16(&in);
    uint32_t mask = read_u32(&in);
    TLOG("handler_add_msg ssid = 0x%x, mask = 0x%x\n", unsigned(ssid), unsigned(mask));
    tovak_config_edit_and_save([&] { tovak_config_add_msg(ssid, mask); });
    return 1;
}

uint32_t handler_rm_msg(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    byte_buffer in;
    if (!begin_edit(req_len, req, rsp_len, rsp, &in))
        return 0;
    uint16_t ssid = read_u16(&in);
    TLOG("handler_rm_msg ssid = 0x%x\n", unsigned(ssid));
    tovak_config_edit_and_save([&] { tovak_config_rm_msg(ssid); });
    return 1;
}

uint32_t handler_get_msg(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    TLOG("handler_get_msg\n");
    tovak_msg_entry* entries = nullptr;
    int count = -1;
    tovak_config_get_msgs(&entries, &count);
    TLOG("size = %d, out_len = %d\n", count, int(*rsp_len));
    if (entries == nullptr) {
        TLOG_ERR();
        return 0;
    }
    if (count < 0) {
        TLOG_ERR();
        free(entries);
        return 0;
    }
    // The padding goes out as zeros, never as whatever memory held.
    std::vector<uint8_t> bytes(size_t(count) * MSG_ENTRY_SIZE, 0);
    for (int i = 0; i < count; i++) {
        uint8_t* e = bytes.data() + size_t(i) * MSG_ENTRY_SIZE;
        uint32_t listed = entries[i].mask & MSG_LISTED_MASK;
        e[0] = uint8_t(entries[i].ssid);
        e[1] = uint8_t(entries[i].ssid >> 8);
        for (int b = 0; b < 4; b++)
            e[4 + b] = uint8_t(listed >> (8 * b));
    }
    write_listing(bytes, rsp_len, rsp);
    free(entries);
    return 1;
}
