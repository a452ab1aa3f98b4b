// Host diag and DPL libraries: every call travels to tovak-devsim over
// SIM_LINK_DIAG_PATH. Thread-safe: each call holds a connection of its own.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hdlc.h"
#include "host_link.h"
#include "le.h"
#include "platform/diag.h"
#include "sim_link.h"

namespace {

int op(uint32_t code, const std::vector<uint8_t>& args, int32_t fail, std::vector<uint8_t>* data = nullptr)
{
    int32_t result;
    return sim_link_op(SIM_LINK_DIAG_PATH, code, args, &result, data) ? result : fail;
}

std::vector<uint8_t> i32_arg(int32_t v)
{
    std::vector<uint8_t> a;
    put_u32(a, uint32_t(v));
    return a;
}

// One data-path logging request to the local modem; its answer's fields
// after the 4-byte header, or false.
bool dpl_request(uint16_t code, const std::vector<uint8_t>& body, std::vector<uint8_t>* fields)
{
    std::vector<uint8_t> pkt = { DIAG_SUBSYS_CMD, DIAG_SUBSYS_DPL };
    put_u16(pkt, code);
    pkt.insert(pkt.end(), body.begin(), body.end());
    // The data-type word, then the frame appended in place.
    std::vector<uint8_t> msg(4, 0);
    msg[0] = SIM_LINK_DIAG_REQUEST;
    hdlc_frame_append(msg, pkt.data(), pkt.size());
    SimLink link(SIM_LINK_DIAG_PATH);
    std::vector<uint8_t> answer, ans;
    if (!link.ask(msg.data(), msg.size(), &answer))
        return false;
    if (hdlc_unframe(answer.data(), answer.size(), &ans) != HdlcResult::ok || ans.size() < 4 ||
        !std::equal(pkt.begin(), pkt.begin() + 4, ans.begin()))
        return false;
    fields->assign(ans.begin() + 4, ans.end());
    return true;
}

// The record the modem expects for an interface: the kinds 1 and 2 each
// with variants 0 and 1.
void default_iface_record(uint8_t ifid, uint8_t* rec)
{
    memset(rec, 0, DIAG_DPL_IFACE_RECORD_SIZE);
    rec[0] = ifid;
    rec[1] = DIAG_DPL_RECORD_ENTRIES;
    const uint8_t kinds[DIAG_DPL_RECORD_ENTRIES][2] = { { 1, 0 }, { 2, 0 }, { 1, 1 }, { 2, 1 } };
    for (int k = 0; k < DIAG_DPL_RECORD_ENTRIES; k++) {
        uint8_t* e = rec + DIAG_DPL_ENTRY_OFFSET + DIAG_DPL_ENTRY_SIZE * k;
        e[0] = kinds[k][0];
        e[4] = ifid;
        e[6] = kinds[k][1];
    }
}

int set_iface_logging(const uint8_t* rec, void* rsp, int rsp_len)
{
    std::vector<uint8_t> fields;
    bool ok = dpl_request(DPL_SET_IFACE_LOGGING, std::vector<uint8_t>(rec, rec + DIAG_DPL_IFACE_RECORD_SIZE), &fields);
    if (rsp && rsp_len > 0) {
        memset(rsp, 0, size_t(rsp_len));
        if (ok)
            memcpy(rsp, fields.data(), std::min(fields.size(), size_t(rsp_len)));
    }
    return ok && fields.size() >= 2 && fields[1] == 0 ? 1 : 0;
}

} // namespace

extern "C" {

int diag_init(void)
{
    SimLink link(SIM_LINK_DIAG_PATH);
    return link.ok() ? 0 : -1;
}

int diag_get_mode(void)
{
    return op(SIM_OP_GET_MODE, {}, -1);
}

int diag_switch_logging(int mode)
{
    return op(SIM_OP_SWITCH_LOGGING, i32_arg(mode), 0);
}

void diag_hdlc_encode(struct diag_send_desc_type* src, struct diag_hdlc_dest_type* dest)
{
    // The state carries where a frame left off when the output area filled
    // up: the phase in bits 16 and up, the running CRC in the low 16 bits.
    enum { PHASE_BODY = 1, PHASE_CRC_LO, PHASE_CRC_HI, PHASE_FLAG, PHASE_DONE };
    if (src == nullptr || dest == nullptr || src->pkt == nullptr || dest->dest == nullptr || dest->dest_last == nullptr)
        return;
    const uint8_t* p = static_cast<const uint8_t*>(src->pkt);
    const uint8_t* last = static_cast<const uint8_t*>(src->last);
    uint8_t* out = static_cast<uint8_t*>(dest->dest);
    uint8_t* out_last = static_cast<uint8_t*>(dest->dest_last);
    int phase = src->state >> 16;
    uint16_t crc = uint16_t(src->state & 0xFFFF);
    if (phase == 0) {
        phase = PHASE_BODY;
        crc = 0xFFFF;
    }
    // Writes b escaped when it fits whole.
    auto put = [&](uint8_t b, bool escape) {
        bool esc = escape && (b == HDLC_FLAG || b == HDLC_ESC);
        if (out > out_last || (esc && out + 1 > out_last))
            return false;
        if (esc) {
            *out++ = HDLC_ESC;
            *out++ = uint8_t(b ^ HDLC_ESC_XOR);
        } else {
            *out++ = b;
        }
        return true;
    };
    if (phase == PHASE_BODY) {
        while (last != nullptr && p <= last && put(*p, true)) {
            crc = uint16_t(hdlc_crc16_update(crc, *p));
            p++;
        }
        if (last == nullptr || p > last)
            phase = src->terminate ? PHASE_CRC_LO : PHASE_DONE;
    }
    uint16_t fcs = uint16_t(crc ^ 0xFFFF);
    if (phase == PHASE_CRC_LO && put(uint8_t(fcs), true))
        phase = PHASE_CRC_HI;
    if (phase == PHASE_CRC_HI && put(uint8_t(fcs >> 8), true))
        phase = PHASE_FLAG;
    if (phase == PHASE_FLAG && put(HDLC_FLAG, false))
        phase = PHASE_DONE;
    src->pkt = p;
    // An unterminated packet leaves its CRC running for the next piece.
    if (phase == PHASE_DONE && !src->terminate)
        src->state = PHASE_BODY << 16 | crc;
    else
        src->state = phase == PHASE_DONE ? 0 : (phase << 16 | crc);
    dest->dest = out;
}

int diag_hdlc_decode(struct diag_hdlc_decode_type* h)
{
    if (h == nullptr || h->src_ptr == nullptr || h->dest_ptr == nullptr)
        return 0;
    while (h->src_idx < h->src_size) {
        uint8_t b = h->src_ptr[h->src_idx++];
        if (b == HDLC_FLAG) {
            if (h->escaping) {
                h->escaping = 0;
                return 0;
            }
            if (h->dest_idx == 0)
                continue; // leading or repeated flags
            if (h->dest_idx >= h->dest_size)
                return 0;
            h->dest_ptr[h->dest_idx++] = HDLC_FLAG;
            unsigned body = h->dest_idx - 1;
            if (body < 3)
                return 0;
            uint16_t crc = get_u16(h->dest_ptr + body - 2);
            return hdlc_crc16(h->dest_ptr, body - 2) == crc ? 1 : 0;
        }
        if (b == HDLC_ESC && !h->escaping) {
            h->escaping = 1;
            continue;
        }
        if (h->dest_idx >= h->dest_size)
            return 0;
        h->dest_ptr[h->dest_idx++] = h->escaping ? uint8_t(b ^ HDLC_ESC_XOR) : b;
        h->escaping = 0;
    }
    return 0; // no closing flag yet
}

struct diag_rsp_type* diag_send_wait_rsp(const void* buf, int len, int wait, const void* pkt)
{
    (void)pkt;
    if (buf == nullptr || len <= 0)
        return nullptr;
    SimLink link(SIM_LINK_DIAG_PATH);
    if (!link.post(buf, size_t(len)))
        return nullptr;
    if (!wait) {
        link.discard(); // its answer must not reach a later caller
        return nullptr;
    }
    std::vector<uint8_t> answer;
    if (!link.await_answer(&answer))
        return nullptr;
    // One block, so that a plain free releases the record with its data.
    auto* rsp = static_cast<diag_rsp_type*>(malloc(sizeof(diag_rsp_type) + answer.size() + 1));
    if (rsp == nullptr)
        return nullptr;
    rsp->length = uint32_t(answer.size());
    rsp->data = reinterpret_cast<uint8_t*>(rsp + 1);
    memcpy(rsp->data, answer.data(), answer.size());
    return rsp;
}

void diag_free_rsp(struct diag_rsp_type* rsp)
{
    free(rsp);
}

int diag_has_remote_device(uint16_t* remote)
{
    int r = op(SIM_OP_HAS_REMOTE, {}, -1);
    if (remote)
        *remote = r > 0 ? 1 : 0;
    return r >= 0 ? 1 : 0;
}

int diag_change_buffer_size(int size)
{
    return op(SIM_OP_CHANGE_BUFFER_SIZE, i32_arg(size), 0);
}

int diag_get_buffer_size(void)
{
    return op(SIM_OP_GET_BUFFER_SIZE, {}, 0);
}

int diag_change_output_path(const char* path)
{
    if (path == nullptr)
        return 0;
    std::vector<uint8_t> args(path, path + strlen(path) + 1);
    return op(SIM_OP_CHANGE_OUTPUT_PATH, args, 0);
}

int diag_commit_log(void)
{
    return op(SIM_OP_COMMIT, {}, 0);
}

int diag_stop_logging(void)
{
    return op(SIM_OP_STOP, {}, 0);
}

int diag_get_range(uint32_t* first, uint32_t* second)
{
    std::vector<uint8_t> data;
    int r = op(SIM_OP_GET_RANGE, {}, 0, &data);
    bool ok = r == 1 && data.size() >= 8;
    if (first)
        *first = ok ? get_u32(data.data()) : 0;
    if (second)
        *second = ok ? get_u32(data.data() + 4) : 0;
    return ok ? 1 : 0;
}

int diag_dpl_init(void)
{
    return diag_init();
}

int diag_dpl_reset_logging(void)
{
    std::vector<uint8_t> fields;
    return dpl_request(DPL_RESET, {}, &fields) && !fields.empty() && fields[0] == 0 ? 1 : 0;
}

int diag_dpl_set_iface_logging(const void* record, void* rsp, int rsp_len, uint8_t ifid)
{
    uint8_t rec[DIAG_DPL_IFACE_RECORD_SIZE];
    if (record == nullptr)
        default_iface_record(ifid, rec);
    else
        memcpy(rec, record, sizeof rec);
    return set_iface_logging(rec, rsp, rsp_len);
}

int diag_dpl_set_iface_logging_with_ifid(uint8_t ifid)
{
    uint8_t rec[DIAG_DPL_IFACE_RECORD_SIZE];
    default_iface_record(ifid, rec);
    return set_iface_logging(rec, nullptr, 0);
}

int diag_dpl_get_supported_ifaces(struct diag_dpl_iface_list* list)
{
    if (list == nullptr)
        return 0;
    list->count = 0;
    std::vector<uint8_t> fields;
    if (!dpl_request(DPL_LIST_IFACES, {}, &fields) || fields.empty())
        return 0;
    size_t n = std::min<size_t>({ fields[0], fields.size() - 1, DIAG_DPL_MAX_IFACES });
    memcpy(list->ids, fields.data() + 1, n);
    list->count = uint32_t(n);
    return 1;
}

int diag_dpl_get_iface_desc(uint8_t ifid, struct diag_dpl_iface_desc* desc)
{
    if (desc == nullptr)
        return 0;
    desc->ifid = ifid;
    desc->desc[0] = '\0';
    std::vector<uint8_t> fields;
    if (!dpl_request(DPL_IFACE_DESC, { ifid }, &fields) || fields.size() < 3 || fields[0] != ifid || fields[1] != 0)
        return 0;
    size_t n = std::min<size_t>({ fields[2], fields.size() - 3, DIAG_DPL_DESC_SIZE - 1 });
    memcpy(desc->desc, fields.data() + 3, n);
    desc->desc[n] = '\0';
    return 1;
}

} // extern "C"
