// The simulated modem: each request it serves, byte for byte, and what it
// refuses.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "dpl_record.h"
#include "hdlc.h"
#include "le.h"
#include "modem.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string& s)
{
    Bytes out;
    std::string digits;
    for (char c : s)
        if (isxdigit(uint8_t(c)))
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(uint8_t(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string hexs(const Bytes& b)
{
    std::string s;
    char d[4];
    for (uint8_t x : b)
        s += (snprintf(d, sizeof d, "%02x ", x), d);
    return s;
}

// A small modem whose answers fit in a table.
ModemRanges small_ranges()
{
    ModemRanges r;
    r.event_count = 20;
    r.log_last_items = { 0, 0x20, 0, 0, 0x130, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 };
    r.ssid_ranges = { { 0, 2 }, { 500, 501 } };
    return r;
}

struct Exchange {
    const char* what;
    const char* request;
    const char* answer; // "" for silence
};

void run_table(Modem& m, const std::vector<Exchange>& table)
{
    for (const Exchange& x : table)
        EXPECT_EQ(hexs(hex(x.answer)), hexs(m.handle(hex(x.request)))) << x.what;
}

TEST(Modem, AnswersTheRangeQueries)
{
    Modem m(small_ranges());
    run_table(m, {
        { "0x73 op 1: header, status, 16 last items", "73 000000 01000000",
          "73 000000 01000000 00000000 00000000 20000000 00000000 00000000 30010000"
          " 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000"
          " 00000000 00000000 00000000" },
        { "0x7D 1: status 1, reserved, count, ranges", "7D 01", "7D 01 01 00 02000000 0000 0200 F401 F501" },
        { "0x81: error 0, reserved, count, mask", "81 00 0000", "81 00 0000 1400 000000" },
        { "0x60 on", "60 01", "60 00 00" },
        { "0x60 off", "60 00", "60 00 00" },
    });
}

TEST(Modem, RefusesUnknownAndMalformedRequests)
{
    Modem m(small_ranges());
    run_table(m, {
        { "unknown command", "4A 01 02", "13 4A 01 02" },
        { "unknown subsystem", "4B 07 01 00", "13 4B 07 01 00" },
        { "0x60 long", "60 01 00", "15 60 01 00" },
        { "0x60 short", "60", "15 60" },
        { "0x60 value 2", "60 02", "14 60 02" },
        { "0x73 short", "73 00 00 00 01", "15 73 00 00 00 01" },
        { "0x73 op 1 with a tail", "73 000000 01000000 00", "15 73 000000 01000000 00" },
        { "0x73 unknown op", "73 000000 09000000", "14 73 000000 09000000" },
        { "0x73 op 3 without its header", "73 000000 03000000 01000000", "15 73 000000 03000000 01000000" },
        { "0x73 op 3 mask too short", "73 000000 03000000 01000000 10000000 FF",
          "15 73 000000 03000000 01000000 10000000 FF" },
        { "0x7D alone", "7D", "15 7D" },
        { "0x7D unknown subcommand", "7D 09", "14 7D 09" },
        { "0x7D 4 first after last", "7D 04 0200 0100 0000 00000000 00000000", "14 7D 04 0200 0100 0000 00000000 00000000" },
        { "0x7D 4 masks missing", "7D 04 0000 0200 0000 01000000", "15 7D 04 0000 0200 0000 01000000" },
        { "0x7D 5 short", "7D 05 0000 0000", "15 7D 05 0000 0000" },
        { "0x81 short", "81 00", "15 81 00" },
        { "0x82 mask short", "82 00 0000 1400 FF", "15 82 00 0000 1400 FF" },
        { "DPL unknown code", "4B 2A 0900", "14 4B 2A 0900" },
    });
}

TEST(Modem, SetsLogMasksWithinEachEquipmentsLastItem)
{
    Modem m(small_ranges());
    // Equipment 4 has last item 0x130: 0x131 bits is its whole range.
    Bytes req = hex("73 000000 03000000 04000000 31010000");
    Bytes mask((0x131 + 7) / 8, 0);
    mask[0x25] = 0x80; // item 0x12F
    mask[0] = 0x01;    // item 0
    req.insert(req.end(), mask.begin(), mask.end());
    EXPECT_EQ(hexs(hex("73 000000 03000000 00000000")), hexs(m.handle(req)));
    EXPECT_EQ((std::vector<uint16_t>{ 0x4000, 0x412F }), m.enabled_log_codes());

    run_table(m, {
        { "one bit more than the equipment has", "73 000000 03000000 01000000 22000000 0000000000",
          "73 000000 03000000 02000000" },
        { "equipment without items", "73 000000 03000000 00000000 01000000 01", "73 000000 03000000 01000000" },
        { "equipment 16", "73 000000 03000000 10000000 01000000 01", "73 000000 03000000 01000000" },
    });
    EXPECT_EQ((std::vector<uint16_t>{ 0x4000, 0x412F }), m.enabled_log_codes()) << "refusals change nothing";

    // Fewer bits than the equipment has clear the rest.
    m.handle(hex("73 000000 03000000 04000000 08000000 02"));
    EXPECT_EQ((std::vector<uint16_t>{ 0x4001 }), m.enabled_log_codes());
    m.handle(hex("73 000000 03000000 01000000 21000000 00000000 01"));
    EXPECT_EQ((std::vector<uint16_t>{ 0x1020, 0x4001 }), m.enabled_log_codes()) << "the last item itself counts";
    EXPECT_EQ(hexs(hex("73 000000 00000000 00000000")), hexs(m.handle(hex("73 000000 00000000"))));
    EXPECT_TRUE(m.enabled_log_codes().empty());
}

TEST(Modem, SetsMessageMasksOfRangesItKnows)
{
    Modem m(small_ranges());
    run_table(m, {
        { "whole range", "7D 04 0000 0200 0000 01000000 00000000 1F000000",
          "7D 04 0000 0200 01 00 01000000 00000000 1F000000" },
        { "part of a range", "7D 04 F501 F501 0000 04000000", "7D 04 F501 F501 01 00 04000000" },
        { "beyond a range: refused, masks as they are", "7D 04 0100 0300 0000 FF000000 FF000000 FF000000",
          "7D 04 0100 0300 00 00 00000000 1F000000 00000000" },
    });
    EXPECT_EQ((std::map<uint16_t, uint32_t>{ { 0, 1 }, { 2, 0x1F }, { 501, 4 } }), m.msg_masks());
    EXPECT_EQ(hexs(hex("7D 05 01 00 02000000")), hexs(m.handle(hex("7D 05 0000 02000000"))));
    EXPECT_EQ((std::map<uint16_t, uint32_t>{ { 0, 2 }, { 1, 2 }, { 2, 2 }, { 500, 2 }, { 501, 2 } }), m.msg_masks());
    m.handle(hex("7D 05 0000 00000000"));
    EXPECT_TRUE(m.msg_masks().empty());
}

TEST(Modem, SetsTheEventMaskUpToItsCount)
{
    Modem m(small_ranges());
    run_table(m, {
        { "the daemon's layout: (N >> 3) + 1 mask bytes; ids 0 and N - 1", "82 00 0000 1400 01 00 08",
          "82 00 0000 1400 010008" },
        { "read back", "81 00 0000", "81 00 0000 1400 010008" },
    });
    EXPECT_EQ((std::vector<uint16_t>{ 0, 19 }), m.enabled_events());
    // Fewer ids than the modem has: the rest are cleared.
    m.handle(hex("82 00 0000 0800 02"));
    EXPECT_EQ((std::vector<uint16_t>{ 1 }), m.enabled_events());
    // More than it has: refused with its error byte.
    EXPECT_EQ(hexs(hex("82 01 0000 1400 020000")), hexs(m.handle(hex("82 00 0000 1500 FF FF FF"))));
    EXPECT_EQ((std::vector<uint16_t>{ 1 }), m.enabled_events());
}

TEST(Modem, DataPathLoggingInterfaces)
{
    Modem m;
    run_table(m, {
        { "list", "4B 2A 0200", "4B 2A 0200 05 01 02 0F 13 14" },
        { "description", "4B 2A 0300 13", "4B 2A 0300 13 00 0B 726D6E65745F6461746130" },
        { "unknown interface", "4B 2A 0300 07", "4B 2A 0300 07 01 00" },
        { "reset", "4B 2A 0100", "4B 2A 0100 00" },
    });
    // The daemon's 68-byte record for interface 15.
    Bytes rec = dpl_iface_record(15);
    Bytes req = hex("4B 2A 0400");
    req.insert(req.end(), rec.begin(), rec.end());
    EXPECT_EQ(hexs(hex("4B 2A 0400 0F 00")), hexs(m.handle(req)));
    int logging = 0;
    for (const DplIface& i : m.dpl_ifaces())
        logging += i.logging ? (i.id == 15 ? 1 : 100) : 0;
    EXPECT_EQ(1, logging);

    Bytes wrong_kind = req;
    wrong_kind[4 + 8] = 3;
    EXPECT_EQ(0x14, m.handle(wrong_kind)[0]);
    Bytes short_rec(req.begin(), req.end() - 1 - 4);
    EXPECT_EQ(0x15, m.handle(short_rec)[0]);
    Bytes unknown = req;
    unknown[4] = 44;
    for (int k = 0; k < 4; k++)
        unknown[size_t(4 + 8 + 16 * k + 4)] = 44;
    EXPECT_EQ(hexs(hex("4B 2A 0400 2C 01")), hexs(m.handle(unknown)));
    m.handle(hex("4B 2A 0100"));
    for (const DplIface& i : m.dpl_ifaces())
        EXPECT_FALSE(i.logging) << int(i.id);
}

TEST(Modem, DefaultRangesDifferFromTheDaemonsBuiltInTables)
{
    ModemRanges r = default_modem_ranges();
    const uint32_t builtin[16] = { 3003, 1425, 3003, 3003, 2328, 1064, 3003, 2910, 3003, 3003, 914, 521, 3003, 0, 0, 0 };
    int differ = 0;
    for (int q = 0; q < 16; q++)
        differ += r.log_last_items[size_t(q)] != builtin[q];
    EXPECT_GE(differ, 2);
    // One built-in range (10251-10255) is wider than the modem's: the modem
    // refuses the daemon's packet for it.
    Modem m;
    EXPECT_EQ(0, m.handle(hex("7D 04 0B28 0F28 0000 00000000 00000000 00000000 00000000 00000000"))[6]);
}

TEST(Modem, NewRangesStartOver)
{
    Modem m(small_ranges());
    m.handle(hex("7D 05 0000 01000000"));
    m.handle(hex("60 01"));
    ModemRanges r = small_ranges();
    r.event_count = 9;
    m.set_ranges(r);
    EXPECT_TRUE(m.msg_masks().empty());
    EXPECT_FALSE(m.event_reporting());
    EXPECT_EQ(hexs(hex("81 00 0000 0900 0000")), hexs(m.handle(hex("81 00 0000"))));
}

// Parses one traffic frame back into its packet.
Bytes unframe_next(const Bytes& stream, size_t* pos)
{
    Bytes pkt;
    size_t used = 0;
    EXPECT_EQ(HdlcResult::ok, hdlc_unframe(stream.data() + *pos, stream.size() - *pos, &pkt, &used));
    *pos += used;
    return pkt;
}

TEST(ModemTraffic, UsesTheModemsOwnLayouts)
{
    Modem m(small_ranges());
    m.handle(hex("73 000000 03000000 01000000 08000000 04")); // log code 0x1002
    m.handle(hex("82 00 0000 1400 000001"));                    // event 16
    m.handle(hex("60 01"));
    m.handle(hex("7D 04 F401 F401 0000 08000000"));             // SSID 500, level 3
    const uint64_t unix_ns = 1700000000ull * 1000000000ull;
    m.produce(3, unix_ns, 1 << 20);
    EXPECT_EQ(3u, m.produced());
    Bytes stream = m.take_traffic();
    EXPECT_EQ(0u, m.traffic_bytes());
    const uint64_t ts = diag_timestamp(unix_ns);
    EXPECT_EQ(((1700000000ull - 315964800ull) * 800ull) << 16, ts);

    size_t pos = 0;
    Bytes log = unframe_next(stream, &pos);
    ASSERT_EQ(4u + 20, log.size()) << "length counts from the second length field";
    EXPECT_EQ(hexs(hex("10 00 1400 1400 0210")), hexs(Bytes(log.begin(), log.begin() + 8)));
    EXPECT_EQ(ts, get_u64(&log[8]));

    Bytes ev = unframe_next(stream, &pos);
    ASSERT_EQ(13u, ev.size());
    EXPECT_EQ(hexs(hex("60 0A00")), hexs(Bytes(ev.begin(), ev.begin() + 3)));
    EXPECT_EQ(16, get_u16(&ev[3]) & 0x0FFF);
    EXPECT_EQ(ts, get_u64(&ev[5]));

    Bytes msg = unframe_next(stream, &pos);
    ASSERT_GT(msg.size(), 24u);
    EXPECT_EQ(0x79, msg[0]);
    EXPECT_EQ(1, msg[2]) << "one argument";
    EXPECT_EQ(ts, get_u64(&msg[4]));
    EXPECT_EQ(500, get_u16(&msg[14]));
    EXPECT_EQ(8u, get_u32(&msg[16]));
    std::string fmt(reinterpret_cast<const char*>(&msg[24]));
    std::string file(reinterpret_cast<const char*>(&msg[24 + fmt.size() + 1]));
    EXPECT_EQ(msg.size(), 24 + fmt.size() + 1 + file.size() + 1);
    EXPECT_EQ(stream.size(), pos);
}

TEST(ModemTraffic, EventsNeedReportingAndTheBufferDropsTheOldest)
{
    Modem m(small_ranges());
    m.handle(hex("82 00 0000 1400 010000"));
    EXPECT_FALSE(m.has_enabled_items()) << "an event mask alone reports nothing";
    m.produce(5, 0, 1 << 20);
    EXPECT_EQ(0u, m.produced());
    m.handle(hex("60 01"));
    ASSERT_TRUE(m.has_enabled_items());
    m.produce(10, 0, 1 << 20);
    size_t frame = m.traffic_bytes() / 10;
    ASSERT_EQ(frame * 10, m.traffic_bytes()) << "equal frames";
    m.produce(10, 0, frame * 4 + frame / 2);
    EXPECT_EQ(4u, m.traffic_frames());
    EXPECT_EQ(16u, m.dropped());
    m.trim(frame);
    EXPECT_EQ(1u, m.traffic_frames());
}

} // namespace
