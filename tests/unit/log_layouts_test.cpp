// Every record the simulated modem emits, read back with the layout table:
// a row whose fields disagree with its declared length, or a record that
// disagrees with its row, fails here.
#include <gtest/gtest.h>

#include <set>

#include "hdlc.h"
#include "ip_packets.h"
#include "le.h"
#include "log_layouts.h"
#include "modem.h"

namespace {

TEST(LogLayouts, RowsAddUp)
{
    for (const LogLayout& l : log_layouts()) {
        size_t sum = 0;
        for (const LayoutField& f : l.fields)
            sum += f.width;
        EXPECT_EQ(l.fixed_len, sum) << l.name;
        EXPECT_LT(l.tail_len_field, int(l.fields.size())) << l.name;
    }
}

TEST(LogLayouts, EveryEmittedRecordDecodesWithItsRow)
{
    Modem m;
    const char* setup[] = {
        "73000000030000000400000030010000", // equipment 4 up to 0x130: 0x412F below
        "7d0400000000000008000000",         // SSID 0, level 3
        "6001",
    };
    for (const char* h : setup) {
        std::vector<uint8_t> req;
        for (size_t i = 0; h[i] && h[i + 1]; i += 2)
            req.push_back(uint8_t(std::stoi(std::string(h + i, 2), nullptr, 16)));
        if (req[0] == 0x73) {
            req.resize(16 + (0x130 + 7) / 8, 0);
            req[16 + 0x12F / 8] = 0x80;
        }
        m.handle(req);
    }
    // Every code with a row, a code without one, every listed event, DPL.
    std::vector<uint8_t> log_set = { 0x73, 0, 0, 0, 3, 0, 0, 0, 0x0B, 0, 0, 0, 0, 0x0A, 0, 0 };
    log_set.resize(16 + 0xA00 / 8, 0);
    for (const LogLayout& l : log_layouts())
        if (l.code >> 12 == 0xB)
            log_set[16 + (l.code & 0xFFF) / 8] |= uint8_t(1 << (l.code & 7));
    log_set[16 + 0x16A / 8] |= 1 << (0x16A & 7); // 0xB16A: no public layout
    m.handle(log_set);
    std::vector<uint8_t> ev_set = { 0x82, 0, 0, 0, 0x98, 0x08 };
    ev_set.resize(6 + 0x898 / 8 + 1, 0);
    for (const EventLayout& e : event_layouts())
        ev_set[6 + e.id / 8] |= uint8_t(1 << (e.id % 8));
    m.handle(ev_set);
    std::vector<uint8_t> dpl = { 0x4B, 0x2A, 4, 0, 19, 4, 0, 0, 0, 0, 0, 0 };
    for (uint8_t k = 0; k < 4; k++) {
        const uint8_t entry[16] = { uint8_t(k % 2 + 1), 0, 0, 0, 19, 0, uint8_t(k / 2) };
        dpl.insert(dpl.end(), entry, entry + 16);
    }
    m.handle(dpl);
    m.produce(60, 2000, 2000000000000000000ull, 64 << 20);

    std::vector<uint8_t> stream = m.take_traffic(), pkt;
    std::set<uint16_t> seen;
    size_t used = 0;
    for (size_t pos = 0; pos < stream.size(); pos += used) {
        ASSERT_EQ(HdlcResult::ok, hdlc_unframe(stream.data() + pos, stream.size() - pos, &pkt, &used));
        if (pkt[0] == 0x10) {
            ASSERT_GE(pkt.size(), 16u);
            ASSERT_EQ(get_u16(&pkt[2]), pkt.size() - 4);
            ASSERT_EQ(get_u16(&pkt[4]), pkt.size() - 4);
            const uint16_t code = get_u16(&pkt[6]);
            const LogLayout& l = log_layout(code);
            std::vector<uint64_t> v;
            size_t tail = 0;
            ASSERT_TRUE(log_body_decode(l, pkt.data() + 16, pkt.size() - 16, &v, &tail)) << std::hex << code;
            if (code == DPL_LOG_CODE) { // a whole IPv4 or IPv6 packet with a right header checksum
                EXPECT_TRUE((pkt[24] >> 4 == 4 && ip_checksum(&pkt[24], 20) == 0) || pkt[24] >> 4 == 6);
            }
            seen.insert(code);
        } else if (pkt[0] == 0x60) {
            ASSERT_EQ(get_u16(&pkt[1]), pkt.size() - 3);
            const uint16_t word = get_u16(&pkt[3]), id = word & 0xFFF;
            const unsigned code = word >> 13 & 3;
            const size_t payload = code < 3 ? code : pkt[13];
            ASSERT_EQ(pkt.size(), 13 + (code == 3 ? 1 : 0) + payload) << id;
            ASSERT_NE(nullptr, event_layout(id));
            EXPECT_EQ(event_layout(id)->payload_len, payload) << id;
            seen.insert(id);
        }
    }
    for (const LogLayout& l : log_layouts())
        EXPECT_TRUE(seen.count(l.code ? l.code : 0xB16A)) << l.name;
    for (const EventLayout& e : event_layouts())
        EXPECT_TRUE(seen.count(e.id)) << e.name;
    EXPECT_TRUE(seen.count(0x412F));
}

} // namespace
