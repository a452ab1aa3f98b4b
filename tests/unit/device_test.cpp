// The simulated device: HDLC framing; the modem's answers to the requests
// the daemon sends (byte for byte, in the order a log on sends them); every
// record it emits read back with the layout table (a row whose fields
// disagree with its declared length fails the decoder); the control verbs,
// a bad one refused with a reason and changing nothing.
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "device.h"
#include "dpl_record.h"
#include "hdlc.h"
#include "hex_text.h"
#include "ip_packets.h"
#include "le.h"
#include "sim_device.h"

static std::vector<uint8_t> hex(std::string s)
{
    std::vector<uint8_t> out;
    s.erase(std::remove(s.begin(), s.end(), ' '), s.end());
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        out.push_back(uint8_t(std::stoi(s.substr(i, 2), nullptr, 16)));
    return out;
}

TEST(Hdlc, FramesEscapesAndRefusesDamage)
{
    EXPECT_EQ(0x906E, hdlc_crc16(reinterpret_cast<const uint8_t*>("123456789"), 9)) << "CRC-16/X-25 check";
    const std::vector<uint8_t> pkt = hex("4B 7E 7D 00");
    std::vector<uint8_t> frame = { 0x7E, 0x7E }, out; // leading flags are fine
    hdlc_frame_append(frame, pkt.data(), pkt.size());
    EXPECT_EQ("7e 7e 4b 7d 5e 7d 5d 00", hex_text(std::vector<uint8_t>(frame.begin(), frame.end() - 3)));
    ASSERT_EQ(HdlcResult::ok, hdlc_unframe(frame.data(), frame.size(), &out));
    EXPECT_EQ(pkt, out);
    const struct {
        std::vector<uint8_t> frame;
        HdlcResult r;
    } bad[] = {
        { hdlc_frame(pkt.data(), pkt.size(), 0xFFFF), HdlcResult::bad_crc },
        { hex("60 7D 7E"), HdlcResult::bad_escape },
        { hex("60 7E"), HdlcResult::too_short },
        { hex("60 01 02"), HdlcResult::incomplete },
    };
    for (const auto& b : bad)
        EXPECT_EQ(b.r, hdlc_unframe(b.frame.data(), b.frame.size(), &out)) << hex_text(b.frame);
}

TEST(Modem, AnswersTheDaemonsRequests)
{
    ModemRanges r;
    r.event_count = 20;
    r.log_last_items = { 0, 0x20, 0, 0, 0x130 };
    r.ssid_ranges = { { 0, 2 }, { 500, 501 } };
    Modem m(r);
    std::vector<uint8_t> dpl_set = hex("4B 2A 0400"), rec = dpl_iface_record(15);
    dpl_set.insert(dpl_set.end(), rec.begin(), rec.end());
    std::string id_ranges = "73 00 00 00 01 00 00 00 00 00 00 00";
    for (uint32_t last : r.log_last_items)
        id_ranges.append(" ").append(hex_text({ uint8_t(last), uint8_t(last >> 8), 0, 0 }));
    // clang-format off
    const struct { const char* what; std::vector<uint8_t> req; const char* answer; } table[] = {
        { "id ranges", hex("73 000000 01000000"), id_ranges.c_str() },
        { "SSID ranges", hex("7D 01"), "7d 01 01 00 02 00 00 00 00 00 02 00 f4 01 f5 01" },
        { "event mask: ids 0 and 19", hex("82 00 0000 1400 010008"), "82 00 00 00 14 00 01 00 08" },
        { "event mask wider than the modem", hex("82 00 0000 1500 000000"), "82 01 00 00 14 00 01 00 08" },
        { "log mask of equipment 4, code 0x412F",
          hex("73 000000 03000000 04000000 30010000" + std::string(37 * 2, '0') + "80"),
          "73 00 00 00 03 00 00 00 00 00 00 00" },
        { "equipment without items", hex("73 000000 03000000 02000000 08000000 FF"), "73 00 00 00 03 00 00 00 01 00 00 00" },
        { "more bits than items", hex("73 000000 03000000 01000000 30000000 000000000000"), "73 00 00 00 03 00 00 00 02 00 00 00" },
        { "message masks of a range", hex("7D 04 0000 0200 0000 04000000 00000000 18000000"),
          "7d 04 00 00 02 00 01 00 04 00 00 00 00 00 00 00 18 00 00 00" },
        { "DPL interfaces", hex("4B 2A 0200"), "4b 2a 02 00 05 01 02 0f 13 14" },
        { "DPL description", hex("4B 2A 0300 0F"), "4b 2a 03 00 0f 00 0a 72 6d 6e 65 74 5f 69 70 61 30" },
        { "DPL logging of 15", dpl_set, "4b 2a 04 00 0f 00" },
        { "clear all log codes", hex("73 000000 00000000"), "73 00 00 00 00 00 00 00 00 00 00 00" },
        { "wrong length", hex("60 01 02"), "15 60 01 02" },
    };
    // clang-format on
    for (const auto& x : table)
        EXPECT_EQ(x.answer, hex_text(m.handle(x.req))) << x.what;
    EXPECT_EQ((std::vector<uint16_t>{ 0, 19 }), m.enabled_events());
    EXPECT_TRUE(m.enabled_log_codes().empty() && m.dpl_ifaces()[2].logging);
}

// A log mask request for equipment q enabling codes, bits up to `bits`.
static std::vector<uint8_t> log_mask(uint8_t q, uint16_t bits, const std::vector<uint16_t>& codes)
{
    std::vector<uint8_t> r = { 0x73, 0, 0, 0, 3, 0, 0, 0, q, 0, 0, 0, uint8_t(bits), uint8_t(bits >> 8), 0, 0 };
    r.resize(16 + (bits + 7) / 8);
    for (uint16_t c : codes)
        if (c >> 12 == q)
            r[16 + (c & 0xFFF) / 8] |= uint8_t(1 << (c & 7));
    return r;
}

TEST(LogLayouts, EveryEmittedRecordDecodesWithItsRow)
{
    std::vector<uint16_t> codes = { 0xB16A }; // one without a public layout
    for (const LogLayout& l : log_layouts())
        codes.push_back(l.code);
    Modem m;
    std::vector<uint8_t> events = { 0x82, 0, 0, 0, 0x98, 0x08 }, dpl = { 0x4B, 0x2A, 4, 0 }, rec = dpl_iface_record(19);
    events.resize(6 + 0x898 / 8 + 1);
    for (const EventLayout& e : event_layouts())
        events[6 + e.id / 8] |= uint8_t(1 << (e.id % 8));
    dpl.insert(dpl.end(), rec.begin(), rec.end());
    for (const auto& req :
         { log_mask(4, 0x130, codes), log_mask(0xB, 0xA00, codes), events, dpl, std::vector<uint8_t>{ 0x60, 1 } })
        ASSERT_NE(0x15, m.handle(req).at(0));
    m.produce(60, 2000, 2000000000000000000ull, 64 << 20);

    std::vector<uint8_t> stream = m.take_traffic(), pkt;
    std::set<unsigned> seen;
    for (size_t pos = 0, used = 0; pos < stream.size(); pos += used) {
        ASSERT_EQ(HdlcResult::ok, hdlc_unframe(stream.data() + pos, stream.size() - pos, &pkt, &used));
        if (pkt[0] == 0x10) {
            ASSERT_TRUE(pkt.size() >= 16 && get_u16(&pkt[2]) == pkt.size() - 4 && get_u16(&pkt[4]) == pkt.size() - 4);
            const uint16_t code = get_u16(&pkt[6]);
            std::vector<uint64_t> v;
            size_t tail;
            ASSERT_TRUE(log_body_decode(log_layout(code), &pkt[16], pkt.size() - 16, &v, &tail)) << std::hex << code;
            // A DPL record's IPv4 header checksum holds.
            EXPECT_TRUE(code != DPL_LOG_CODE || pkt[24] >> 4 != 4 || ip_checksum(&pkt[24], 20) == 0);
            seen.insert(code);
        } else if (pkt[0] == 0x60) {
            const uint16_t id = get_u16(&pkt[3]) & 0xFFF, code = get_u16(&pkt[3]) >> 13 & 3;
            const size_t payload = code < 3 ? code : pkt[13];
            ASSERT_TRUE(event_layout(id) && get_u16(&pkt[1]) == pkt.size() - 3) << id;
            ASSERT_EQ(pkt.size(), 13 + (code == 3) + payload) << id;
            EXPECT_EQ(event_layout(id)->payload_len, payload) << id;
            seen.insert(id);
        }
    }
    for (const LogLayout& l : log_layouts())
        EXPECT_TRUE(seen.count(l.code ? l.code : 0xB16A)) << l.name;
    for (const EventLayout& e : event_layouts())
        EXPECT_TRUE(seen.count(e.id)) << e.name;
}

TEST(Device, ControlVerbs)
{
    TempDir root;
    Device d(root.path(), root.path() + "/sim");
    std::ofstream(root.path() + "/sim/tovakd.state") << "pid 0\nstarts 3\nlast_exit signal 9\n";
    // clang-format off
    const struct { std::vector<std::string> args; std::string reply_start; } table[] = {
        { { "rate", "5000" },                         "ok" },
        { { "fault", "silent", "on" },                "ok" },
        { { "fault", "logger-absent", "maybe" },      "error: logger-absent takes on or off" },
        { { "fault", "stall", "radio", "on" },        "ok" },
        { { "prop", "get", "dev.bootcomplete" },      "\n" },
        { { "daemon-kill" },                          "error: no daemon runs" },
        { { "disk", "fill", "/" },                    "error: refusing to fill /:" },
        { { "qmi", "phantom", "10,0" },               "error: bad unit size 0" },
        { { "frobnicate" },                           "error: unknown command 'frobnicate'" },
    };
    // clang-format on
    for (const auto& x : table)
        EXPECT_EQ(x.reply_start, d.control(x.args).substr(0, x.reply_start.size())) << x.args[0];
    nlohmann::json st = d.status();
    EXPECT_EQ(5000, st["traffic_rate"]);
    EXPECT_TRUE(st["faults"]["silent"] && st["logger"]["radio"]["stalled"]);
    EXPECT_EQ(nlohmann::json({ { "pid", 0 }, { "starts", 3 }, { "last_exit", "signal 9" } }), st["daemon"]);
    EXPECT_EQ(0, st["qmi"]["units"]["phantom"].size()) << "refused edit changed nothing";
}
