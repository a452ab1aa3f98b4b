#include "log_layouts.h"

#include <cmath>
#include <cstring>

#include "ip_packets.h"
#include "le.h"

namespace {

// The serving cell at c: a handover every 45 s, signal drifting with time,
// frame numbers running at 10 ms.
struct Cell {
    uint16_t pci;
    uint32_t earfcn;
    int rsrp_dbm;
    uint16_t sfn;
    uint8_t subfn;
    uint16_t rnti;
};

Cell cell_at(const RecordContext& c)
{
    static const uint32_t earfcns[] = { 1300, 3050, 6300 };
    const unsigned epoch = unsigned(c.t / 45);
    const uint64_t ms = uint64_t(c.t * 1000);
    Cell cell;
    cell.pci = uint16_t(37 + (epoch * 53) % 460);
    cell.earfcn = earfcns[epoch % 3];
    cell.rsrp_dbm = -95 + int(lround(12 * sin(c.t / 7)));
    cell.sfn = uint16_t((ms / 10) % 1024);
    cell.subfn = uint8_t(ms % 10);
    cell.rnti = uint16_t(0x3000 + (epoch * 17) % 0x1000);
    return cell;
}

void fill_wcdma_signalling(const RecordContext&, uint64_t* v, std::vector<uint8_t>& tail)
{
    // PCCH PagingType1 with no records: integrity info, choice and the
    // three optional fields all absent.
    tail = { 0x00 };
    v[0] = 6; // PCCH
    v[1] = 0;
    v[2] = tail.size();
}

void fill_rach_trigger(const RecordContext& c, uint64_t* v, std::vector<uint8_t>&)
{
    const Cell cell = cell_at(c);
    const uint64_t vals[] = { 1,
                              1,
                              0,
                              5,
                              1,
                              15,
                              0,
                              0x12345678u + (c.seq & 0xFF),
                              0x9A,
                              0,
                              c.seq % 64,
                              0xFF,
                              7,
                              0,
                              uint64_t(-cell.rsrp_dbm - 60),
                              cell.rnti };
    memcpy(v, vals, sizeof vals);
}

void fill_rach_attempt(const RecordContext& c, uint64_t* v, std::vector<uint8_t>&)
{
    const Cell cell = cell_at(c);
    const uint64_t vals[] = { 1, 1, 0, 6, 2, 32, 1, 0, 1, 7, c.seq % 64, 0xFF, uint64_t(uint16_t(-104)), 0, 0,
                              cell.rnti, 10 + c.seq % 20, 0x00C8E00Bu, 0x0B, 0,
                              // Msg3 as a MAC PDU, zero padded: a CCCH subheader, then an
                              // RRCConnectionRequest with S-TMSI 0x12/0x3C4D5E6F, cause
                              // mo-Signalling (bytes 41 23 c4 d5 e6 f6 read low first).
                              0x00F6E6D5C4234100ull, 0 };
    memcpy(v, vals, sizeof vals);
}

void fill_lte_rrc(const RecordContext& c, uint64_t* v, std::vector<uint8_t>& tail)
{
    const Cell cell = cell_at(c);
    // BCCH-BCH MasterInformationBlock: 50 PRBs, normal PHICH duration,
    // PHICH resource one, the frame number's top 8 bits, 10 spare bits.
    const uint8_t sfn8 = uint8_t(cell.sfn >> 2);
    tail = { uint8_t(0x68 | sfn8 >> 6), uint8_t((sfn8 & 0x3F) << 2), 0 };
    const uint64_t vals[] = { 15, 9, 0,          0, cell.pci, cell.earfcn, uint64_t(cell.sfn << 4 | cell.subfn),
                              1,  0, tail.size() };
    memcpy(v, vals, sizeof vals);
}

void fill_nas(uint16_t code, const RecordContext& c, uint64_t* v, std::vector<uint8_t>& tail)
{
    const uint8_t pti = uint8_t(1 + c.seq % 254);
    switch (code) {
    case 0xB0EC:
        tail = { 0x07, 0x61 };
        break; // EMM information
    case 0xB0ED:
        tail = { 0x07, 0x4A };
        break; // tracking area update complete
    case 0xB0E2:
        tail = { 0x02, pti, 0xD9 };
        break; // ESM information request
    default:
        tail = { 0x02, pti, 0xDA };
        break; // ESM information response
    }
    const uint64_t vals[] = { 1, 9, 5, 0 };
    memcpy(v, vals, sizeof vals);
}

template <uint16_t CODE>
void fill_nas_code(const RecordContext& c, uint64_t* v, std::vector<uint8_t>& tail)
{
    fill_nas(CODE, c, v, tail);
}

void fill_dpl(const RecordContext& c, uint64_t* v, std::vector<uint8_t>& tail)
{
    tail = sim_ip_packet(unsigned(c.seq), uint32_t(c.seq));
    const uint64_t vals[] = { 0, 1, 1, c.seq % 2 ? 0x40u : 0u, c.seq & 0xFFFF, 0x8000 };
    memcpy(v, vals, sizeof vals);
}

const char GENERIC_TEXT[] = "tovak-sim generic record";

void fill_generic(const RecordContext& c, uint64_t* v, std::vector<uint8_t>& tail)
{
    tail.assign(GENERIC_TEXT, GENERIC_TEXT + sizeof GENERIC_TEXT - 1);
    v[0] = 0xFF; // a version no parser knows: the body is ours, not the code's
    v[1] = c.seq & 0xFFFFFFFF;
    v[2] = tail.size();
}

using F = LayoutField;

// Layouts as the open-source diag parsers (SCAT, MobileInsight) read them.
// clang-format off
const std::vector<LogLayout> LAYOUTS = {
    { 0x412F, "WCDMA Signaling Messages", 4,
      { F{ "channel_type", 1 }, F{ "rbid", 1 }, F{ "msg_len", 2 } }, 2, 2, fill_wcdma_signalling },
    { 0xB061, "LTE MAC RACH Trigger", 23,
      { F{ "version", 1 }, F{ "subpackets", 1 }, F{ "reserved", 2 },
        F{ "subpacket_id", 1 }, F{ "subpacket_version", 1 }, F{ "subpacket_size", 2 },
        F{ "rach_reason", 1 }, F{ "machine_id_low", 4 }, F{ "machine_id_high", 2 }, F{ "skip", 1 },
        F{ "preamble", 1 }, F{ "preamble_ra_mask", 1 }, F{ "msg3_size", 1 }, F{ "group_chosen", 1 },
        F{ "radio_condition", 1 }, F{ "crnti", 2 } }, -1, 0.5, fill_rach_trigger },
    { 0xB062, "LTE MAC RACH Attempt", 40,
      { F{ "version", 1 }, F{ "subpackets", 1 }, F{ "reserved", 2 },
        F{ "subpacket_id", 1 }, F{ "subpacket_version", 1 }, F{ "subpacket_size", 2 },
        F{ "attempt", 1 }, F{ "rach_result", 1 }, F{ "contention", 1 }, F{ "msg_bitmask", 1 },
        F{ "preamble_index", 1 }, F{ "preamble_index_mask", 1 }, F{ "preamble_power_offset", 2 },
        F{ "backoff", 2 }, F{ "msg2_result", 1 }, F{ "tc_rnti", 2 }, F{ "timing_advance", 2 },
        F{ "grant_raw", 4 }, F{ "grant", 2 }, F{ "harq_id", 1 }, F{ "msg3_pdu", 8 }, F{ "msg3_pdu_end", 2 } },
      -1, 0.5, fill_rach_attempt },
    { 0xB0C0, "LTE RRC OTA Packet", 19,
      { F{ "version", 1 }, F{ "rrc_release_major", 1 }, F{ "rrc_release_minor", 1 }, F{ "rbid", 1 },
        F{ "pci", 2 }, F{ "earfcn", 4 }, F{ "sfn_subfn", 2 }, F{ "pdu_number", 1 }, F{ "sib_mask", 4 },
        F{ "msg_len", 2 } }, 9, 10, fill_lte_rrc },
    { 0xB0E2, "LTE NAS ESM Plain OTA Incoming Message", 4,
      { F{ "version", 1 }, F{ "release_major", 1 }, F{ "release_middle", 1 }, F{ "release_minor", 1 } },
      -1, 1, fill_nas_code<0xB0E2> },
    { 0xB0E3, "LTE NAS ESM Plain OTA Outgoing Message", 4,
      { F{ "version", 1 }, F{ "release_major", 1 }, F{ "release_middle", 1 }, F{ "release_minor", 1 } },
      -1, 1, fill_nas_code<0xB0E3> },
    { 0xB0EC, "LTE NAS EMM Plain OTA Incoming Message", 4,
      { F{ "version", 1 }, F{ "release_major", 1 }, F{ "release_middle", 1 }, F{ "release_minor", 1 } },
      -1, 1, fill_nas_code<0xB0EC> },
    { 0xB0ED, "LTE NAS EMM Plain OTA Outgoing Message", 4,
      { F{ "version", 1 }, F{ "release_major", 1 }, F{ "release_middle", 1 }, F{ "release_minor", 1 } },
      -1, 1, fill_nas_code<0xB0ED> },
    { DPL_LOG_CODE, "Protocol Services Data (DPL)", 8,
      { F{ "instance", 1 }, F{ "protocol", 1 }, F{ "ifname_id", 1 }, F{ "direction", 1 },
        F{ "sequence", 2 }, F{ "segment", 2 } }, -1, 20, fill_dpl },
    { 0, "generic (no public layout)", 6,
      { F{ "version", 1 }, F{ "sequence", 4 }, F{ "text_len", 1 } }, 2, 1, fill_generic },
};

// Payload lengths as the modem's event definitions give them.
const std::vector<EventLayout> EVENTS = {
    { 1498, "LTE_TIMING_ADVANCE", 3, 1 },          { 1499, "LTE_UL_OUT_OF_SYNC", 0, 0.2 },
    { 1500, "LTE_SPS_DEACTIVATED", 1, 0.2 },       { 1501, "LTE_RACH_ACCESS_START", 2, 0.5 },
    { 1502, "LTE_RACH_RAID_MATCH", 1, 0.5 },       { 1503, "LTE_RACH_ACCESS_RESULT", 1, 0.5 },
    { 1605, "LTE_RRC_TIMER_STATUS", 6, 0.5 },      { 1606, "LTE_RRC_STATE_CHANGE", 1, 0.5 },
    { 1607, "LTE_RRC_OUT_OF_SERVICE", 2, 0.1 },    { 1608, "LTE_RRC_RADIO_LINK_FAILURE", 2, 0.1 },
    { 1609, "LTE_RRC_DL_MSG", 2, 2 },              { 1610, "LTE_RRC_UL_MSG", 2, 2 },
    { 1611, "LTE_RRC_NEW_CELL_IND", 5, 0.2 },      { 1612, "LTE_RRC_CELL_RESEL_FAILURE", 5, 0.1 },
    { 1613, "LTE_RRC_HO_FAILURE", 5, 0.1 },        { 1614, "LTE_RRC_PAGING_DRX_CYCLE", 2, 0.5 },
    { 1685, "LTE_ML1_STATE_CHANGE", 2, 0.5 },      { 1966, "LTE_EMM_OTA_INCOMING_MSG", 1, 0.5 },
    { 1967, "LTE_EMM_OTA_OUTGOING_MSG", 1, 0.5 },  { 1968, "LTE_ESM_OTA_INCOMING_MSG", 1, 0.5 },
    { 1969, "LTE_ESM_OTA_OUTGOING_MSG", 1, 0.5 },
    // Defined without a public payload: sent bare.
    { 1970, "LTE_RRC_PLMN_SEARCH_START", 0, 0.1 }, { 1971, "LTE_RRC_PLMN_SEARCH_STOP", 0, 0.1 },
    { 1972, "LTE_RRC_BG_TO_FG_PLMN_SEARCH", 0, 0.1 },
};
// clang-format on

void put_le(std::vector<uint8_t>& out, uint64_t v, unsigned width)
{
    for (unsigned i = 0; i < width; i++)
        out.push_back(uint8_t(v >> (8 * i)));
}

} // namespace

const std::vector<LogLayout>& log_layouts()
{
    return LAYOUTS;
}

const LogLayout& log_layout(uint16_t code)
{
    for (const LogLayout& l : LAYOUTS)
        if (l.code == code)
            return l;
    return LAYOUTS.back();
}

void log_body_append(const LogLayout& l, const RecordContext& c, std::vector<uint8_t>& out)
{
    uint64_t values[32] = {};
    std::vector<uint8_t> tail;
    l.fill(c, values, tail);
    for (size_t i = 0; i < l.fields.size() && i < 32; i++)
        put_le(out, values[i], l.fields[i].width);
    out.insert(out.end(), tail.begin(), tail.end());
}

bool log_body_decode(const LogLayout& l, const uint8_t* body, size_t len, std::vector<uint64_t>* values,
                     size_t* tail_len)
{
    values->clear();
    size_t pos = 0;
    for (const LayoutField& f : l.fields) {
        if (pos + f.width > len)
            return false;
        uint64_t v = 0;
        for (unsigned i = 0; i < f.width; i++)
            v |= uint64_t(body[pos + i]) << (8 * i);
        values->push_back(v);
        pos += f.width;
    }
    *tail_len = len - pos;
    return pos == l.fixed_len && (l.tail_len_field < 0 || (*values)[size_t(l.tail_len_field)] == *tail_len);
}

void dpl_body_append(uint8_t ifid, bool tx, uint16_t seq, const std::vector<uint8_t>& ip, std::vector<uint8_t>& out)
{
    const uint8_t head[] = { 0, 1, ifid, uint8_t(tx ? 0x40 : 0) };
    out.insert(out.end(), head, head + sizeof head);
    put_u16(out, seq);
    put_u16(out, 0x8000); // segment 0, the final one
    out.insert(out.end(), ip.begin(), ip.end());
}

const std::vector<EventLayout>& event_layouts()
{
    return EVENTS;
}

const EventLayout* event_layout(uint16_t id)
{
    for (const EventLayout& e : EVENTS)
        if (e.id == id)
            return &e;
    return nullptr;
}

std::vector<uint8_t> event_payload(uint16_t id, const RecordContext& c)
{
    const EventLayout* e = event_layout(id);
    if (e == nullptr)
        return {};
    const Cell cell = cell_at(c);
    static const uint8_t rrc_states[] = { 2, 3, 4, 4, 7, 2 }; // camped, connecting, connected, closing
    switch (id) {
    case 1606:
        return { rrc_states[c.seq % sizeof rrc_states] };
    case 1609:
        return { 4, 0x81 }; // DCCH, DLInformationTransfer
    case 1610:
        return { 6, 0x89 }; // DCCH, ULInformationTransfer
    case 1611:
    case 1612:
    case 1613:
        return { uint8_t(cell.pci), uint8_t(cell.pci >> 8), uint8_t(cell.earfcn), uint8_t(cell.earfcn >> 8), 0 };
    default: {
        std::vector<uint8_t> p(e->payload_len);
        for (size_t i = 0; i < p.size(); i++)
            p[i] = uint8_t(c.seq + i);
        return p;
    }
    }
}
