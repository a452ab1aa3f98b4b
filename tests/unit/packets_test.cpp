// The mask request packets built from a configuration and the modem's
// ranges, byte for byte, what a failed range query leaves, and a start-up
// whose buffer size the platform refuses.
#include <gtest/gtest.h>

#include "hex_text.h"
#include "linked_devsim.h"
#include "logging/tovak_data.h"
#include "logging/tovak_diag.h"
#include "logging/tovak_logging.h"

namespace {

std::vector<std::string> built_packets()
{
    EXPECT_EQ(0, tovak_data_load_dm_packet());
    std::vector<std::string> out;
    for (uint32_t i = 0; auto p = tovak_data_get_dm_packet(i); i++)
        out.push_back(hex_text(*p));
    EXPECT_EQ(out.size(), tovak_data_dm_packet_count());
    return out;
}

class Packets : public ::testing::Test {
protected:
    void SetUp() override { *tovak_config_locked() = tovak_config{}; }
    void TearDown() override
    {
        *tovak_config_locked() = tovak_config{};
        tovak_data_load_dm_packet();
    }
    // The modem's ranges as a successful query leaves them, then the lists.
    void configure(uint16_t events, std::vector<uint32_t> last_items, std::vector<uint32_t> ssid_ranges,
                   const std::string& text)
    {
        {
            tovak_config_locked c;
            c->ranges_known = 1;
            c->event_id_count = events;
            c->log_last_items = last_items;
            c->msg_ssid_ranges = ssid_ranges;
        }
        tovak_config_load_text(text.c_str());
    }
};

std::vector<uint32_t> last_items(uint32_t equipment, uint32_t last)
{
    std::vector<uint32_t> v(16, 0);
    v[equipment] = last;
    return v;
}

TEST_F(Packets, EventThenLogThenMessageMasksByteForByte)
{
    struct Case {
        const char* name;
        uint16_t events;
        std::vector<uint32_t> last_items;
        std::vector<uint32_t> ranges; // last SSID << 16 | first
        const char* text;
        std::vector<std::string> packets;
    };
    const Case cases[] = {
        { "first and last event of 16: three mask bytes; a code at the limit ends the walk",
          16,
          last_items(4, 8),
          { 6u << 16 | 5 },
          "<EventIDs>0, 15, 24</EventIDs><LogCodes>0x4007, 0x4008, 0x4001</LogCodes>"
          "<MessageLevels>5/3, 5/4, 6/16, 7/1</MessageLevels>",
          { "82 00 00 00 10 00 01 80 00", "73 00 00 00 03 00 00 00 04 00 00 00 08 00 00 00 82",
            "7d 04 05 00 06 00 00 00 18 00 00 00 00 00 01 00" } },
        { "N = 9 takes two bytes; last item 0 means no packet; ranges in table order",
          9,
          last_items(1, 0),
          { 10u << 16 | 10, 3u << 16 | 0 },
          "<EventIDs>8</EventIDs><LogCodes>0x1000</LogCodes>"
          "<MessageLevels>3/0, 3/31</MessageLevels>",
          { "82 00 00 00 09 00 00 01", "7d 04 0a 00 0a 00 00 00 00 00 00 00",
            "7d 04 00 00 03 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 80" } },
        { "equipment 0 and 15, codes past a walk's end ignored",
          8,
          [] {
              auto v = last_items(0, 10);
              v[15] = 4;
              return v;
          }(),
          { 1u << 16 | 1 },
          "<LogCodes>0x0000, 0x0009, 0x000a, 0x0003, 0xf003</LogCodes>",
          { "82 00 00 00 08 00 00 00", "73 00 00 00 03 00 00 00 00 00 00 00 0a 00 00 00 09 02",
            "73 00 00 00 03 00 00 00 0f 00 00 00 04 00 00 00 08", "7d 04 01 00 01 00 00 00 00 00 00 00" } },
    };
    for (const Case& c : cases) {
        configure(c.events, c.last_items, c.ranges, c.text);
        EXPECT_EQ(c.packets, built_packets()) << c.name;
    }
    // 0x412f sets bit 7 of byte 0x25 while the limit is past it, and nothing
    // once the limit is the code itself.
    for (uint32_t limit : { 0x130u, 0x12fu }) {
        configure(8, last_items(4, limit), {}, "<LogCodes>0x412f</LogCodes>");
        built_packets();
        auto p = tovak_data_get_dm_packet(1);
        ASSERT_TRUE(p);
        ASSERT_EQ(16u + (limit + 7) / 8, p->size());
        EXPECT_EQ(limit == 0x130u ? 0x80 : 0, (*p)[16 + 0x25]) << limit;
    }
    configure(8, {}, {}, "");
    tovak_config_locked()->events.reset();
    tovak_config_locked()->log_codes.reset();
    EXPECT_TRUE(built_packets().empty()) << "nothing without event or log lists";
}

// A damaged answer fails the query: the packets take the built-in limits,
// and a later query asks again and takes the modem's.
TEST_F(Packets, AFailedRangeQueryOnTheModemFallsBackAndIsAskedAgain)
{
    LinkedDevsim sim;
    ASSERT_TRUE(sim.start());
    ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", "corrupt", "1" }));
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    testing::internal::CaptureStdout();
    std::vector<std::string> packets = built_packets();
    // The damaged answer is the transport's failure, not a short answer.
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("Error in send diag packet Case 1\n"));
    EXPECT_EQ(0u, tovak_config_locked()->ranges_known);
    ASSERT_EQ(1u + 3 + 23, packets.size());
    EXPECT_EQ(0u, packets[0].rfind("82 00 00 00 76 08", 0)) << "2166 built-in events";

    EXPECT_EQ(1, getVariousInfoOnEventLogMessage());
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    packets = built_packets();
    EXPECT_EQ(0u, packets[0].rfind("82 00 00 00 98 08", 0)) << "the modem's 2200 events";
    EXPECT_EQ(1u + 3 + 25, packets.size()) << "the modem's 25 SSID ranges";
    size_t requests = sim.status()["request_count"].get<size_t>();
    EXPECT_EQ(1, getVariousInfoOnEventLogMessage());
    EXPECT_EQ(requests, sim.status()["request_count"].get<size_t>()) << "known ranges are not asked again";
    EXPECT_EQ(0, sim.stop());
}

// The start-up stops where the platform takes no buffer size, and goes on
// to the end once it does.
TEST_F(Packets, AStartUpWhoseBufferSizeIsRefusedStopsThere)
{
    LinkedDevsim sim;
    ASSERT_TRUE(sim.start());
    ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", "size-refused", "on" }));
    EXPECT_EQ(0u, tovak_handler_init());
    ASSERT_EQ(0, devsim_ctl(sim.root(), { "fault", "size-refused", "off" }));
    EXPECT_EQ(1u, tovak_handler_init());
    EXPECT_EQ(0, sim.stop());
}

// The modem's range answers at their size edges: what is taken, and what a
// refused answer leaves (nothing).
TEST_F(Packets, RangeAnswersAtTheirSizeEdges)
{
    // The log ranges answer: 12 bytes of header with the status at 8, then
    // u32 last items; 10 of them at least.
    auto log_answer = [](size_t items, uint8_t status) {
        std::vector<uint8_t> a(12 + 4 * items, 0);
        a[0] = 0x73;
        a[8] = status;
        for (size_t i = 0; i < items; i++)
            a[12 + 4 * i] = uint8_t(i + 1);
        return a;
    };
    // The SSID ranges answer: 7d 01, status, reserved, u32 count, ranges.
    auto ssid_answer = [](size_t bytes, uint8_t status, uint32_t count) {
        std::vector<uint8_t> a(bytes, 0x11);
        a[0] = 0x7d;
        a[1] = 1;
        a[2] = status;
        for (int i = 0; i < 4 && 4 + i < int(bytes); i++)
            a[4 + i] = uint8_t(count >> (8 * i));
        return a;
    };
    struct Case {
        const char* name;
        bool (*take)(const std::vector<uint8_t>&, tovak_config&);
        std::vector<uint8_t> answer;
        bool result;
        size_t taken;
    };
    // clang-format off
    const Case cases[] = {
        { "log: 10 items",              tovak_data_take_log_ranges,  log_answer(10, 0),         1, 10 },
        { "log: 9 items",               tovak_data_take_log_ranges,  log_answer(9, 0),          0, 0 },
        { "log: status 1",              tovak_data_take_log_ranges,  log_answer(16, 1),         0, 0 },
        { "log: 15 bytes",              tovak_data_take_log_ranges,  std::vector<uint8_t>(15),  0, 0 },
        { "ssid: 10 bytes, no range",   tovak_data_take_ssid_ranges, ssid_answer(10, 1, 1),     1, 0 },
        { "ssid: 9 bytes",              tovak_data_take_ssid_ranges, ssid_answer(9, 1, 1),      0, 0 },
        { "ssid: status 0",             tovak_data_take_ssid_ranges, ssid_answer(16, 0, 2),     0, 0 },
        { "ssid: count past the end",   tovak_data_take_ssid_ranges, ssid_answer(16, 1, 5),     1, 2 },
        { "ssid: count below the end",  tovak_data_take_ssid_ranges, ssid_answer(16, 1, 1),     1, 1 },
        { "event: 6 bytes",             tovak_data_take_event_count, { 0x81, 0, 0, 0, 0x98, 0x08 }, 1, 2200 },
        { "event: 5 bytes",             tovak_data_take_event_count, { 0x81, 0, 0, 0, 0x98 },   0, 0 },
    };
    // clang-format on
    for (const Case& c : cases) {
        tovak_config config;
        EXPECT_EQ(c.result, c.take(c.answer, config)) << c.name;
        if (c.take == tovak_data_take_event_count) {
            EXPECT_EQ(c.taken, config.event_id_count) << c.name;
            continue;
        }
        const bool log = c.take == tovak_data_take_log_ranges;
        const std::vector<uint32_t>& got = log ? config.log_last_items : config.msg_ssid_ranges;
        ASSERT_EQ(c.taken, got.size()) << c.name;
        EXPECT_TRUE(got.empty() || got.back() == (log ? 10u : 0x11111111u)) << c.name;
    }
}

} // namespace

// A frame needs a byte to carry and room past its header words; a refused
// call writes nothing into the buffer.
TEST(Frames, EncodeRefusesAtItsEdgesAndWritesNothingThen)
{
    const uint8_t one[] = { 0x1d };
    struct Case {
        const uint8_t* pkt;
        uint32_t len, size;
        bool remote, framed;
    };
    const Case cases[] = {
        { one, 1, 64, false, true },      { one, 1, 64, true, true },  { one, 0, 64, false, false },
        { nullptr, 1, 64, false, false }, { one, 1, 4, false, false }, { one, 1, 8, true, false },
    };
    for (const Case& c : cases) {
        uint8_t buf[64];
        memset(buf, 0xaa, sizeof buf);
        const int n = tovak_hdlc_encode_frame(c.pkt, c.len, buf, c.size, c.remote);
        SCOPED_TRACE("len " + std::to_string(c.len) + " size " + std::to_string(c.size));
        if (!c.framed) {
            EXPECT_EQ(-1, n);
            EXPECT_EQ(std::string(sizeof buf, char(0xaa)), std::string(buf, buf + sizeof buf));
            continue;
        }
        // The header words, the byte, a CRC of two bytes, the flag.
        const int header = c.remote ? 8 : 4;
        ASSERT_EQ(header + 4, n);
        EXPECT_EQ(0x1d, buf[header]);
        EXPECT_EQ(0x7e, buf[n - 1]);
    }
}
