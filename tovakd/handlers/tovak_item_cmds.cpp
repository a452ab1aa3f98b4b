// The add, remove and list commands of the item sets: event ids, log codes,
// message levels and DPL interfaces. One piece of code, a row per kind. An
// edit changes the configuration and rewrites its file at once; the modem
// sees the mask lists at the next log on.
#include <cstdlib>
#include <vector>

#include "common/tovak_cmd.h"
#include "common/tovak_log.h"
#include "config/tovak_config.h"
#include "handlers/tovak_dpl_cmds.h"
#include "handlers/tovak_handler.h"
#include "protocol/tovak_layouts.h"

#define LOG_MODULE "tovak_handler"

struct item_kind {
    // printf texts: the key (and for messages the mask) as received.
    const char* add_line;
    const char* rm_line;
    // With the reply's room, before the set is copied.
    const char* list_line;
    // With the number of entries and the room, after the copy; or null.
    const char* count_line;
    // A u32 level mask follows the u16 key in an add.
    bool with_mask;
    // The listing starts with its u32 count.
    bool counted;
    // Edits of the locked record.
    int (*add)(tovak_config& c, uint32_t key, uint32_t mask);
    int (*rm)(tovak_config& c, uint32_t key);
    // For a kind the modem takes at once (add is then null): adds the key to
    // the modem and the configuration together; or null.
    void (*program)(uint16_t key);
    // Appends the set in reply layout; the number of entries, or -1 when no
    // copy could be made.
    int (*listing)(std::vector<uint8_t>* out);
};

// A set of u16 ids, 2 bytes each.
static int id_listing(int (*get)(uint16_t**, int*), std::vector<uint8_t>* out)
{
    uint16_t* ids = nullptr;
    int count = -1;
    get(&ids, &count);
    if (ids == nullptr || count < 0) {
        free(ids);
        return -1;
    }
    for (int i = 0; i < count; i++)
        tovak_put_u16(out, ids[i]);
    free(ids);
    return count;
}

// Message entries, of which only the low 16 bits of each mask are listed.
static int msg_listing(std::vector<uint8_t>* out)
{
    tovak_msg_entry* entries = nullptr;
    int count = -1;
    tovak_config_get_msgs(&entries, &count);
    if (entries == nullptr || count < 0) {
        free(entries);
        return -1;
    }
    for (int i = 0; i < count; i++)
        tovak_pack_msg_entry(out, entries[i].ssid, entries[i].mask);
    free(entries);
    return count;
}

// clang-format off
static const item_kind EVENTS = {
    "handler_add_event, event id = %d\n", "handler_rm_event, event id = %d\n",
    "handler_get_events output length = %d\n", nullptr, false, false,
    [](tovak_config& c, uint32_t id, uint32_t) REQUIRES(tovak_config_mutex) {
        return tovak_config_add_event_locked(c, id);
    },
    tovak_config_rm_event_locked, nullptr,
    [](std::vector<uint8_t>* out) { return id_listing(tovak_config_get_events, out); },
};
static const item_kind LOG_CODES = {
    "handler_add_log, log id = %d\n", "handler_rm_log, log id = %d\n",
    "handler_get_logs output length = %d\n", nullptr, false, false,
    [](tovak_config& c, uint32_t code, uint32_t) REQUIRES(tovak_config_mutex) {
        return tovak_config_add_log_locked(c, code);
    },
    tovak_config_rm_log_locked, nullptr,
    [](std::vector<uint8_t>* out) { return id_listing(tovak_config_get_logs, out); },
};
// The message list logs its entry line without the room.
static const item_kind MESSAGES = {
    "handler_add_msg ssid = 0x%x, mask = 0x%x\n", "handler_rm_msg ssid = 0x%x\n",
    "handler_get_msg\n", "size = %d, out_len = %d\n", true, false,
    tovak_config_add_msg_locked, tovak_config_rm_msg_locked, nullptr, msg_listing,
};
// Logged by the modem at once, whatever the DPL state; there is no remove.
static const item_kind DPL_IFS = {
    "handler_dpl_set_if, if id = %d\n", nullptr,
    "handler_dpl_get_if_list output length = %d\n", nullptr, false, true,
    nullptr, nullptr, tovak_dpl_add_iface,
    [](std::vector<uint8_t>* out) { return id_listing(tovak_config_get_dpl_ifs, out); },
};
// clang-format on

// Bad or short requests, an unloaded configuration and a failed save are not
// the client's to know: an edit that is let through succeeds.
static uint32_t edit_item(const item_kind& kind, bool add, uint32_t req_len, uint8_t* req, uint32_t* rsp_len)
{
    *rsp_len = 0;
    tovak_request in(req, req_len);
    const uint16_t key = in.u16();
    const uint32_t mask = add && kind.with_mask ? in.u32() : 0;
    TLOG(add ? kind.add_line : kind.rm_line, unsigned(key), unsigned(mask));
    if (add && kind.program != nullptr)
        kind.program(key);
    else
        tovak_config_edit_and_save(
            [&](tovak_config& c) REQUIRES(tovak_config_mutex) { add ? kind.add(c, key, mask) : kind.rm(c, key); });
    return 1;
}

static uint32_t list_items(const item_kind& kind, uint32_t* rsp_len, uint8_t* rsp)
{
    TLOG(kind.list_line, int(*rsp_len));
    std::vector<uint8_t> listing;
    const int count = kind.listing(&listing);
    if (kind.count_line != nullptr)
        TLOG(kind.count_line, count, int(*rsp_len));
    if (count < 0) {
        TLOG_ERR("item listing failed");
        return 0;
    }
    tovak_reply reply(rsp_len, rsp);
    if (kind.counted)
        reply.u32(uint32_t(count));
    reply.bytes(listing.data(), uint32_t(listing.size())).finish();
    return 1;
}

uint32_t handler_add_event(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    return edit_item(EVENTS, true, req_len, req, rsp_len);
}

uint32_t handler_rm_event(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    return edit_item(EVENTS, false, req_len, req, rsp_len);
}

uint32_t handler_get_events(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    return list_items(EVENTS, rsp_len, rsp);
}

uint32_t handler_add_log(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    return edit_item(LOG_CODES, true, req_len, req, rsp_len);
}

uint32_t handler_rm_log(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    return edit_item(LOG_CODES, false, req_len, req, rsp_len);
}

uint32_t handler_get_logs(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    return list_items(LOG_CODES, rsp_len, rsp);
}

uint32_t handler_add_msg(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    return edit_item(MESSAGES, true, req_len, req, rsp_len);
}

uint32_t handler_rm_msg(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    return edit_item(MESSAGES, false, req_len, req, rsp_len);
}

uint32_t handler_get_msg(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    return list_items(MESSAGES, rsp_len, rsp);
}

uint32_t handler_dpl_get_if_list(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    return list_items(DPL_IFS, rsp_len, rsp);
}

uint32_t handler_dpl_set_if(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    return edit_item(DPL_IFS, true, req_len, req, rsp_len);
}
