// The simulated modem's answers to the requests the daemon sends, byte for
// byte, in the order a log on sends them.
#include <gtest/gtest.h>

#include "dpl_record.h"
#include "hex_text.h"
#include "modem.h"

namespace {

std::vector<uint8_t> hex(const std::string& s)
{
    std::vector<uint8_t> out;
    std::string d;
    for (char c : s)
        if (isxdigit(uint8_t(c)))
            d += c;
    for (size_t i = 0; i + 1 < d.size(); i += 2)
        out.push_back(uint8_t(std::stoi(d.substr(i, 2), nullptr, 16)));
    return out;
}

TEST(Modem, AnswersTheDaemonsRequests)
{
    ModemRanges r;
    r.event_count = 20;
    r.log_last_items = { 0, 0x20, 0, 0, 0x130 };
    r.ssid_ranges = { { 0, 2 }, { 500, 501 } };
    Modem m(r);
    std::vector<uint8_t> dpl_set = hex("4B 2A 0400");
    for (uint8_t b : dpl_iface_record(15))
        dpl_set.push_back(b);
    std::string id_ranges = "73 00 00 00 01 00 00 00 00 00 00 00";
    for (uint32_t last : r.log_last_items)
        id_ranges += " " + hex_text({ uint8_t(last), uint8_t(last >> 8), 0, 0 });
    // clang-format off
    const struct { const char* what; std::vector<uint8_t> req; const char* answer; } table[] = {
        { "id ranges", hex("73 000000 01000000"), id_ranges.c_str() },
        { "SSID ranges", hex("7D 01"), "7d 01 01 00 02 00 00 00 00 00 02 00 f4 01 f5 01" },
        { "event count", hex("81 00 0000"), "81 00 00 00 14 00 00 00 00" },
        { "event mask: ids 0 and 19", hex("82 00 0000 1400 010008"), "82 00 00 00 14 00 01 00 08" },
        { "event mask wider than the modem", hex("82 00 0000 1500 000000"), "82 01 00 00 14 00 01 00 08" },
        { "log mask of equipment 4, code 0x412F",
          hex("73 000000 03000000 04000000 30010000" + std::string(37 * 2, '0') + "80"),
          "73 00 00 00 03 00 00 00 00 00 00 00" },
        { "equipment without items", hex("73 000000 03000000 02000000 08000000 FF"), "73 00 00 00 03 00 00 00 01 00 00 00" },
        { "more bits than items", hex("73 000000 03000000 01000000 30000000 000000000000"), "73 00 00 00 03 00 00 00 02 00 00 00" },
        { "message masks of a range", hex("7D 04 0000 0200 0000 04000000 00000000 18000000"),
          "7d 04 00 00 02 00 01 00 04 00 00 00 00 00 00 00 18 00 00 00" },
        { "range the modem lacks", hex("7D 04 0300 0300 0000 01000000"), "7d 04 03 00 03 00 00 00 00 00 00 00" },
        { "event reporting on", hex("60 01"), "60 00 00" },
        { "DPL interfaces", hex("4B 2A 0200"), "4b 2a 02 00 05 01 02 0f 13 14" },
        { "DPL description", hex("4B 2A 0300 0F"), "4b 2a 03 00 0f 00 0a 72 6d 6e 65 74 5f 69 70 61 30" },
        { "DPL logging of 15", dpl_set, "4b 2a 04 00 0f 00" },
        { "clear all log codes", hex("73 000000 00000000"), "73 00 00 00 00 00 00 00 00 00 00 00" },
        { "clear all message masks", hex("7D 05 0000 00000000"), "7d 05 01 00 00 00 00 00" },
        { "unknown command", hex("4A 01"), "13 4a 01" },
        { "wrong length", hex("60 01 02"), "15 60 01 02" },
    };
    // clang-format on
    for (const auto& x : table)
        EXPECT_EQ(x.answer, hex_text(m.handle(x.req))) << x.what;
    EXPECT_EQ((std::vector<uint16_t>{ 0, 19 }), m.enabled_events());
    EXPECT_TRUE(m.enabled_log_codes().empty()) << "cleared";
    EXPECT_TRUE(m.msg_masks().empty()) << "cleared";
    EXPECT_TRUE(m.dpl_ifaces()[2].logging);
}

} // namespace
