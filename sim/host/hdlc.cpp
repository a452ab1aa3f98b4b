#include "hdlc.h"

namespace {

// Byte-at-a-time table: the modem frames tens of megabytes a second.
struct CrcTable {
    uint16_t t[256];
    CrcTable()
    {
        for (unsigned b = 0; b < 256; b++) {
            uint16_t crc = uint16_t(b);
            for (int i = 0; i < 8; i++)
                crc = (crc & 1) ? uint16_t((crc >> 1) ^ 0x8408) : uint16_t(crc >> 1);
            t[b] = crc;
        }
    }
};
const CrcTable crc_table;

} // namespace

uint16_t hdlc_crc16_update(uint16_t crc, uint8_t byte)
{
    return uint16_t((crc >> 8) ^ crc_table.t[(crc ^ byte) & 0xFF]);
}

uint16_t hdlc_crc16(const uint8_t* data, size_t len, uint16_t crc)
{
    for (size_t i = 0; i < len; i++)
        crc = hdlc_crc16_update(crc, data[i]);
    return uint16_t(crc ^ 0xFFFF);
}

static void put_escaped(std::vector<uint8_t>& out, uint8_t b)
{
    if (b == HDLC_FLAG || b == HDLC_ESC) {
        out.push_back(HDLC_ESC);
        out.push_back(uint8_t(b ^ HDLC_ESC_XOR));
    } else {
        out.push_back(b);
    }
}

size_t hdlc_frame_append(std::vector<uint8_t>& out, const uint8_t* pkt, size_t len, uint16_t crc_xor)
{
    const size_t start = out.size();
    out.reserve(start + len + len / 8 + 5);
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < len; i++) {
        crc = hdlc_crc16_update(crc, pkt[i]);
        put_escaped(out, pkt[i]);
    }
    crc = uint16_t(crc ^ 0xFFFF ^ crc_xor);
    put_escaped(out, uint8_t(crc));
    put_escaped(out, uint8_t(crc >> 8));
    out.push_back(HDLC_FLAG);
    return out.size() - start;
}

std::vector<uint8_t> hdlc_frame(const uint8_t* pkt, size_t len, uint16_t crc_xor)
{
    std::vector<uint8_t> out;
    hdlc_frame_append(out, pkt, len, crc_xor);
    return out;
}

HdlcResult hdlc_unframe(const uint8_t* data, size_t len, std::vector<uint8_t>* pkt, size_t* used, size_t max_pkt)
{
    std::vector<uint8_t> body;
    size_t i = 0;
    while (i < len && data[i] == HDLC_FLAG)
        i++;
    bool escaping = false;
    for (; i < len; i++) {
        uint8_t b = data[i];
        if (b == HDLC_FLAG) {
            if (used)
                *used = i + 1;
            if (escaping)
                return HdlcResult::bad_escape;
            if (body.size() < 3)
                return HdlcResult::too_short;
            uint16_t crc = uint16_t(body[body.size() - 2] | body[body.size() - 1] << 8);
            body.resize(body.size() - 2);
            if (hdlc_crc16(body.data(), body.size()) != crc)
                return HdlcResult::bad_crc;
            if (pkt)
                *pkt = std::move(body);
            return HdlcResult::ok;
        }
        if (escaping) {
            body.push_back(uint8_t(b ^ HDLC_ESC_XOR));
            escaping = false;
        } else if (b == HDLC_ESC) {
            escaping = true;
        } else {
            body.push_back(b);
        }
        if (body.size() > max_pkt + 2) {
            if (used)
                *used = i + 1;
            return HdlcResult::too_long;
        }
    }
    if (used)
        *used = len;
    return HdlcResult::incomplete;
}

const char* hdlc_result_name(HdlcResult r)
{
    switch (r) {
    case HdlcResult::ok:
        return "ok";
    case HdlcResult::incomplete:
        return "incomplete";
    case HdlcResult::bad_escape:
        return "bad escape";
    case HdlcResult::bad_crc:
        return "bad crc";
    case HdlcResult::too_short:
        return "too short";
    case HdlcResult::too_long:
        return "too long";
    }
    return "?";
}
