// DPL interface commands. Unlike the mask commands they reach the modem at
// once. The list and add commands are item commands (tovak_item_cmds.cpp).
#include "handlers/tovak_dpl_cmds.h"

#include <cstdlib>
#include <cstring>

#include "common/tovak_cmd.h"
#include "common/tovak_log.h"
#include "common/tovak_mutex.h"
#include "config/tovak_config.h"
#include "handlers/tovak_handler.h"
#include "platform/diag.h"

#define LOG_MODULE "tovak_handler"

// What the library may write back for one interface; not read here.
#define DPL_ANSWER_SIZE 4

// Held from reading the DPL state to storing the new one, across the modem
// calls: two clients switching at once must leave the modem and the stored
// state agreeing.
static tovak_mutex dpl_mutex;

static void start_iface(uint16_t id) REQUIRES(dpl_mutex)
{
    // The modem takes one byte per interface.
    const uint8_t ifid = uint8_t(id);
    uint8_t record[DIAG_DPL_IFACE_RECORD_SIZE] = {};
    record[0] = ifid;
    record[1] = DIAG_DPL_RECORD_ENTRIES;
    // Kinds 1 and 2 in variant 0, then both again in variant 1.
    for (int i = 0; i < DIAG_DPL_RECORD_ENTRIES; i++) {
        uint8_t* e = record + DIAG_DPL_ENTRY_OFFSET + DIAG_DPL_ENTRY_SIZE * i;
        e[0] = uint8_t(1 + i % 2); // u32 kind, little-endian
        e[4] = ifid;
        e[6] = uint8_t(i / 2);
    }
    uint8_t answer[DPL_ANSWER_SIZE] = {};
    diag_dpl_set_iface_logging(record, answer, DPL_ANSWER_SIZE, ifid);
}

void tovak_dpl_add_iface(uint16_t id)
{
    // Under the DPL lock, so that a reset between the two leaves neither a
    // listed interface the modem no longer logs nor the reverse.
    tovak_lock hold(dpl_mutex);
    start_iface(id);
    tovak_config_edit_and_save([&](tovak_config& c)
                                   REQUIRES(tovak_config_mutex) { tovak_config_add_dpl_if_locked(c, id); });
}

static void start_configured_ifaces() REQUIRES(dpl_mutex)
{
    uint16_t* ids = nullptr;
    int count = -1;
    int result = tovak_config_get_dpl_ifs(&ids, &count);
    TLOG("tovak_config_get_dpl_ifs result = %d, size = %d\n", result, count);
    for (int i = 0; i < count; i++)
        diag_dpl_set_iface_logging_with_ifid(uint8_t(ids[i]));
    free(ids);
}

void tovak_dpl_select_configured()
{
    tovak_lock hold(dpl_mutex);
    if (tovak_config_get_dpl_state())
        start_configured_ifaces();
}

uint32_t handler_dpl_set_state(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t*)
{
    const uint32_t state = tovak_request(req, req_len).u32();
    TLOG("dpl set state %d\n", int(state));
    tovak_lock hold(dpl_mutex);
    // A repeat is refused so that the client learns nothing changed.
    if (state == tovak_config_get_dpl_state()) {
        TLOG_ERR("DPL state asked is the state held");
        return 0;
    }
    if (state != 0)
        start_configured_ifaces();
    else
        diag_dpl_reset_logging();
    // A negative request has switched the interfaces on, yet is stored as off.
    tovak_config_edit_and_save([&](tovak_config& c)
                                   REQUIRES(tovak_config_mutex) { c.dpl_state = int32_t(state) > 0 ? 1 : 0; });
    *rsp_len = 0;
    return 1;
}

uint32_t handler_dpl_get_state(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    TLOG("dpl get state\n");
    tovak_reply_u32(rsp_len, rsp, { tovak_config_get_dpl_state() });
    return 1;
}

uint32_t handler_dpl_get_all_if_list(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    TLOG("handler_dpl_get_all_if_list output length = %d\n", int(*rsp_len));
    diag_dpl_iface_list list;
    memset(&list, 0, sizeof list);
    diag_dpl_get_supported_ifaces(&list);
    const uint32_t count = list.count < DIAG_DPL_MAX_IFACES ? list.count : DIAG_DPL_MAX_IFACES;

    tovak_reply reply(rsp_len, rsp);
    reply.u32(count);
    for (uint32_t i = 0; i < count; i++) {
        diag_dpl_iface_desc desc;
        memset(&desc, 0, sizeof desc);
        diag_dpl_get_iface_desc(list.ids[i], &desc);
        const char* end = static_cast<const char*>(memchr(desc.desc, '\0', sizeof desc.desc));
        // Its length would not fit the reply's byte; it can't be cut either.
        if (end == nullptr) {
            TLOG_ERR("DPL interface description without its zero byte");
            return 0;
        }
        const uint8_t len = uint8_t(end - desc.desc);
        TLOG("id = %d, desc = %s\n", int(list.ids[i]), desc.desc);
        // Each write stands alone: a reply area too small for one still
        // takes the smaller ones after it.
        reply.u8(list.ids[i]).u8(len).bytes(desc.desc, len);
    }
    reply.finish();
    return 1;
}

uint32_t handler_dpl_reset(uint32_t, uint8_t*, uint32_t*, uint8_t*)
{
    tovak_lock hold(dpl_mutex);
    diag_dpl_reset_logging();
    tovak_config_edit_and_save([](tovak_config& c) REQUIRES(tovak_config_mutex) {
        if (c.dpl_ifs)
            c.dpl_ifs->ids.clear();
        c.dpl_state = 0;
    });
    // The reply is never written, not even its length.
    return 1;
}
