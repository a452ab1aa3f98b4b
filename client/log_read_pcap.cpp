// pcap export. One link type, raw IP, carries both: DPL's own IP packets
// as they are, and radio messages in GSMTAP over UDP to port 4729, which
// Wireshark decodes with its own dissectors.
#include <cstring>

#include "log_read.h"

namespace {

#define PCAP_LINKTYPE_RAW 101
#define GSMTAP_PORT 4729
#define GSMTAP_TYPE_LTE_RRC 0x0D
#define GSMTAP_TYPE_LTE_NAS 0x12
#define GSMTAP_ARFCN_UPLINK 0x4000

// The LTE RRC log's PDU numbers (1-8) as GSMTAP's channel subtypes, and
// which of them go up.
struct RrcChannel {
    uint8_t subtype;
    bool uplink;
};
// clang-format off
const RrcChannel RRC_CHANNELS[8] = {
    { 4, false }, // BCCH-BCH
    { 5, false }, // BCCH-DL-SCH
    { 7, false }, // MCCH
    { 6, false }, // PCCH
    { 0, false }, // DL-CCCH
    { 1, false }, // DL-DCCH
    { 2, true  }, // UL-CCCH
    { 3, true  }, // UL-DCCH
};
// clang-format on

void put16be(uint8_t* p, uint16_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

void le32(std::vector<uint8_t>& out, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        out.push_back(uint8_t(v >> (8 * i)));
}

uint16_t ip_header_checksum(const uint8_t* p)
{
    uint32_t sum = 0;
    for (int i = 0; i < 20; i += 2)
        sum += uint32_t(p[i] << 8 | p[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}

} // namespace

bool lr_gsmtap_of(const LrRecord& r, uint8_t* type, uint8_t* subtype, const uint8_t** msg, size_t* msg_len,
                  uint16_t* arfcn)
{
    if (r.kind != LrKind::log)
        return false;
    const uint8_t* b = r.body;
    const size_t n = r.body_len;
    switch (r.code) {
    case 0xB0C0: {
        // Older versions carry a 16-bit EARFCN and no SIB mask.
        if (n < 1)
            return false;
        const bool wide = b[0] >= 8;
        const size_t head = wide ? 19 : 13;
        if (n < head)
            return false;
        const uint8_t pdu = b[wide ? 12 : 10];
        const size_t len = size_t(b[head - 2] | b[head - 1] << 8);
        if (pdu < 1 || pdu > 8 || len != n - head || len == 0)
            return false;
        const RrcChannel& ch = RRC_CHANNELS[pdu - 1];
        const uint32_t earfcn =
            wide ? uint32_t(b[6] | b[7] << 8 | b[8] << 16 | uint32_t(b[9]) << 24) : uint32_t(b[6] | b[7] << 8);
        *type = GSMTAP_TYPE_LTE_RRC;
        *subtype = ch.subtype;
        *msg = b + head;
        *msg_len = len;
        *arfcn = uint16_t((earfcn & 0x3FFF) | (ch.uplink ? GSMTAP_ARFCN_UPLINK : 0));
        return true;
    }
    case 0xB0E2:
    case 0xB0E3:
    case 0xB0EC:
    case 0xB0ED:
        // Plain NAS messages after a 4-byte version header.
        if (n <= 4)
            return false;
        *type = GSMTAP_TYPE_LTE_NAS;
        *subtype = 0;
        *msg = b + 4;
        *msg_len = n - 4;
        *arfcn = (r.code == 0xB0E3 || r.code == 0xB0ED) ? GSMTAP_ARFCN_UPLINK : 0;
        return true;
    default:
        return false;
    }
}

bool LrPcapWriter::open(FILE* out)
{
    out_ = out;
    std::vector<uint8_t> h;
    h.reserve(24);
    le32(h, 0xA1B2C3D4);
    le32(h, 2 | 4 << 16); // version 2.4: two u16
    le32(h, 0);           // GMT offset
    le32(h, 0);           // accuracy
    le32(h, 262144);      // snap length
    le32(h, PCAP_LINKTYPE_RAW);
    failed_ = fwrite(h.data(), 1, h.size(), out_) != h.size();
    return !failed_;
}

void LrPcapWriter::packet(uint64_t stamp, const uint8_t* a, size_t alen, const uint8_t* b, size_t blen)
{
    const uint64_t us = uint64_t(lr_stamp_us(stamp));
    buf_.clear();
    le32(buf_, uint32_t(us / 1000000));
    le32(buf_, uint32_t(us % 1000000));
    le32(buf_, uint32_t(alen + blen));
    le32(buf_, uint32_t(alen + blen));
    buf_.insert(buf_.end(), a, a + alen);
    buf_.insert(buf_.end(), b, b + blen);
    if (fwrite(buf_.data(), 1, buf_.size(), out_) != buf_.size())
        failed_ = true;
    written_++;
}

bool LrPcapWriter::add(const LrRecord& r)
{
    if (r.kind != LrKind::log)
        return false;
    const uint64_t t = r.stamp;
    if (r.code == LR_DPL_CODE) {
        if (r.body_len <= LR_DPL_HEAD)
            return false;
        const uint8_t* ip = r.body + LR_DPL_HEAD;
        const uint8_t version = ip[0] >> 4;
        if (version != 4 && version != 6)
            return false;
        packet(t, ip, r.body_len - LR_DPL_HEAD, nullptr, 0);
        return true;
    }
    uint8_t type, subtype;
    const uint8_t* msg;
    size_t msg_len;
    uint16_t arfcn;
    if (!lr_gsmtap_of(r, &type, &subtype, &msg, &msg_len, &arfcn))
        return false;
    // IPv4 to the loopback, UDP without a checksum, the GSMTAP header.
    uint8_t h[20 + 8 + 16] = {};
    const size_t total = sizeof h + msg_len;
    if (total > 0xFFFF)
        return false;
    h[0] = 0x45;
    put16be(h + 2, uint16_t(total));
    h[8] = 64;
    h[9] = 17;
    const uint8_t lo[4] = { 127, 0, 0, 1 };
    memcpy(h + 12, lo, 4);
    memcpy(h + 16, lo, 4);
    put16be(h + 10, ip_header_checksum(h));
    put16be(h + 20, GSMTAP_PORT);
    put16be(h + 22, GSMTAP_PORT);
    put16be(h + 24, uint16_t(total - 20));
    uint8_t* g = h + 28;
    g[0] = 2; // version
    g[1] = 4; // header length in 32-bit words
    g[2] = type;
    put16be(g + 4, arfcn);
    g[12] = subtype;
    packet(t, h, sizeof h, msg, msg_len);
    return true;
}
