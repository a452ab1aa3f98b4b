// The modem range answers, the packets built from a configuration record and
// its limits, and the packet store.
#include "logging/tovak_data.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "config_test_support.h"

#include "hex_text.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put32(Bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        b.push_back(uint8_t(v >> (8 * i)));
}

// A log item range answer: header, status, then the values.
Bytes log_ranges_answer(uint32_t status, std::vector<uint32_t> values)
{
    Bytes a = { 0x73, 0, 0, 0, 1, 0, 0, 0 };
    put32(a, status);
    for (uint32_t v : values)
        put32(a, v);
    return a;
}

// An SSID range answer: status byte, the stated count, then the ranges.
Bytes ssid_ranges_answer(uint8_t status, uint32_t count, std::vector<uint32_t> ranges)
{
    Bytes a = { 0x7d, 0x01, status, 0 };
    put32(a, count);
    for (uint32_t r : ranges)
        put32(a, r);
    return a;
}

std::vector<uint32_t> seq(uint32_t from, size_t n)
{
    std::vector<uint32_t> v;
    for (size_t i = 0; i < n; i++)
        v.push_back(from + uint32_t(i));
    return v;
}

TEST(RangeAnswers, LogItemRangesAreCheckedThenAppended)
{
    struct Case {
        const char* name;
        Bytes answer;
        int result;
        std::vector<uint32_t> appended;
    };
    Bytes fifteen = log_ranges_answer(0, {});
    fifteen.resize(15);
    Bytes trailing = log_ranges_answer(0, seq(100, 10));
    trailing.push_back(0x55); // not a whole value
    const Case cases[] = {
        { "shorter than 16 bytes", fifteen, 0, {} },
        { "status not 0", log_ranges_answer(1, seq(1, 16)), 0, {} },
        { "nine values", log_ranges_answer(0, seq(1, 9)), 0, {} },
        { "ten values", log_ranges_answer(0, seq(100, 10)), 1, seq(100, 10) },
        { "a part value at the end is left", trailing, 1, seq(100, 10) },
        { "more than 16 values are all kept", log_ranges_answer(0, seq(7, 20)), 1, seq(7, 20) },
    };
    for (const Case& c : cases) {
        tovak_config rec;
        rec.log_last_items = { 42 };
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.result, tovak_data_take_log_ranges(c.answer, rec)) << c.name;
        testing::internal::GetCapturedStdout();
        // Appended after what the record held: never replaced.
        std::vector<uint32_t> want = { 42 };
        want.insert(want.end(), c.appended.begin(), c.appended.end());
        EXPECT_EQ(want, rec.log_last_items) << c.name;
    }
}

TEST(RangeAnswers, SsidRangesStopAtTheAnswersEnd)
{
    struct Case {
        const char* name;
        Bytes answer;
        int result;
        std::vector<uint32_t> appended;
    };
    Bytes nine = ssid_ranges_answer(1, 1, {});
    nine.push_back(0);
    Bytes ten = nine;
    ten.push_back(0);
    const std::vector<uint32_t> two = { 0x00780000, 0x01fa01f4 };
    const Case cases[] = {
        { "seven bytes", Bytes{ 0x7d, 0x01, 1, 0, 1, 0, 0 }, 0, {} },
        { "status 0", ssid_ranges_answer(0, 1, { 0x00100000 }), 0, {} },
        { "eight bytes", ssid_ranges_answer(1, 0, {}), 0, {} },
        { "nine bytes", nine, 0, {} },
        { "ten bytes hold no whole range", ten, 1, {} },
        { "count as given", ssid_ranges_answer(1, 2, two), 1, two },
        { "a count past the end", ssid_ranges_answer(1, 5, two), 1, two },
        { "a count short of the end", ssid_ranges_answer(2, 1, two), 1, { 0x00780000 } },
    };
    for (const Case& c : cases) {
        tovak_config rec;
        rec.msg_ssid_ranges = { 0x00050005 };
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.result, tovak_data_take_ssid_ranges(c.answer, rec)) << c.name;
        testing::internal::GetCapturedStdout();
        std::vector<uint32_t> want = { 0x00050005 };
        want.insert(want.end(), c.appended.begin(), c.appended.end());
        EXPECT_EQ(want, rec.msg_ssid_ranges) << c.name;
    }
}

TEST(RangeAnswers, EventCountFromTheEventMaskAnswer)
{
    tovak_config rec;
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, tovak_data_take_event_count({ 0x81, 0, 0, 0, 0x98 }, rec));
    EXPECT_EQ(1, tovak_data_take_event_count({ 0x81, 0, 0, 0, 0x98, 0x08 }, rec));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(2200, rec.event_id_count);
}

// A record as a load leaves it: lists built from text with whatever modem
// values the record held at that moment.
tovak_config parsed(const char* events, const char* logs, const char* msgs, uint16_t count = 0,
                    std::vector<uint32_t> last_items = {}, std::vector<uint32_t> ranges = {})
{
    tovak_config c;
    c.events = tovak_event_list_create(events, count);
    c.log_codes = tovak_log_list_create(logs, last_items);
    c.messages = tovak_msg_list_create(msgs, ranges);
    return c;
}

std::vector<std::string> built(const tovak_config& c)
{
    std::vector<std::string> v;
    for (const tovak_packet& p : tovak_data_build_packets(c))
        v.push_back(hex_text(p));
    return v;
}

TEST(BuildPackets, FromTheRecordWithTheModemsLimits)
{
    // Equipment id 4 ends at item 8, SSIDs 5 to 6 form the modem's one range.
    std::vector<uint32_t> last(16, 0);
    last[4] = 8;
    const std::vector<uint32_t> one_range = { 0x00060005 };
    const std::vector<std::string> want = {
        "82 00 00 00 10 00 02 80 00",
        "73 00 00 00 03 00 00 00 04 00 00 00 08 00 00 00 08",
        "7d 04 05 00 06 00 00 00 18 00 00 00 00 00 00 00",
    };
    tovak_config c = parsed("1, 15", "0x4003", "5/3, 5/4", 16, last, one_range);
    c.event_id_count = 16;
    c.log_last_items = last;
    c.msg_ssid_ranges = one_range;
    EXPECT_EQ(want, built(c));

    // Lists parsed before the modem was asked carry the built-in limits;
    // the packets still take the modem's, as a load now would.
    tovak_config stale = parsed("1, 15", "0x4003", "5/3, 5/4");
    EXPECT_EQ(2166, stale.events->limit);
    stale.event_id_count = 16;
    stale.log_last_items = last;
    stale.msg_ssid_ranges = one_range;
    EXPECT_EQ(want, built(stale));
}

TEST(BuildPackets, BuiltInLimitsWhileTheModemIsUnknown)
{
    tovak_config c = parsed("01498, 01972", "0x412F, 0x713F, 0xB061", "00005/03, 00005/04");
    auto packets = tovak_data_build_packets(c);
    // One event packet, equipment ids 4, 7 and 11, the 23 built-in ranges.
    ASSERT_EQ(1u + 3 + 23, packets.size());
    EXPECT_EQ("82 00 00 00 76 08", hex_text(Bytes(packets[0].begin(), packets[0].begin() + 6)));
    EXPECT_EQ(6u + (2166 >> 3) + 1, packets[0].size());
    const uint32_t last_items[] = { 2328, 2910, 521 };
    for (int i = 0; i < 3; i++) {
        const tovak_packet& p = packets[1 + i];
        EXPECT_EQ(last_items[i], uint32_t(p[12] | p[13] << 8)) << i;
        EXPECT_EQ(16u + (last_items[i] + 7) / 8, p.size()) << i;
    }
    EXPECT_EQ("7d 04 00 00 58 00 00 00", hex_text(Bytes(packets[4].begin(), packets[4].begin() + 8)));
    EXPECT_EQ("7d 04 50 c3 50 c3 00 00 00 00 00 00", hex_text(packets.back()));
}

TEST(BuildPackets, PartlyKnownModemValuesAndTheirBounds)
{
    struct Case {
        const char* name;
        std::vector<uint32_t> last_items;
        size_t ranges;
        std::vector<uint32_t> equipment_limits; // of the log packets built, in order
        size_t msg_packets;
    };
    const Case cases[] = {
        // Only the first equipment ids known: the rest keep the list's table.
        { "three last items", { 10, 20, 30 }, 0, { 10, 20, 30, 2328 }, 23 },
        // A retry after a partial failure appended a second copy: the first 16 count.
        { "32 last items", std::vector<uint32_t>(32, 40), 0, { 40, 40, 40, 40 }, 23 },
        { "seventy modem ranges keep fifty", {}, 70, { 3003, 1425, 3003, 2328 }, 50 },
        { "one modem range", {}, 1, { 3003, 1425, 3003, 2328 }, 1 },
    };
    for (const Case& k : cases) {
        tovak_config c = parsed("", "0x0001, 0x1001, 0x2001, 0x4001", "");
        c.log_last_items = k.last_items;
        for (size_t i = 0; i < k.ranges; i++)
            c.msg_ssid_ranges.push_back(uint32_t(i * 10) | uint32_t(i * 10 + 1) << 16);
        auto packets = tovak_data_build_packets(c);
        ASSERT_EQ(1 + k.equipment_limits.size() + k.msg_packets, packets.size()) << k.name;
        for (size_t i = 0; i < k.equipment_limits.size(); i++)
            EXPECT_EQ(k.equipment_limits[i], uint32_t(packets[1 + i][12] | packets[1 + i][13] << 8)) << k.name;
    }
}

TEST(BuildPackets, NothingBeforeAConfigurationIsParsed)
{
    tovak_config c;
    EXPECT_TRUE(tovak_data_build_packets(c).empty());
    // Empty lists that exist still give the event packet and a packet per range.
    c = parsed("", "", "", 8, {}, { 0x00000000 });
    c.event_id_count = 8;
    c.msg_ssid_ranges = { 0x00000000 };
    EXPECT_EQ((std::vector<std::string>{ "82 00 00 00 08 00 00 00", "7d 04 00 00 00 00 00 00 00 00 00 00" }),
              built(c));
}

// An allocator that fails from its n-th call on.
int allocs_left;
void* failing_alloc(size_t n)
{
    if (allocs_left-- <= 0)
        return nullptr;
    return malloc(n);
}

TEST(PacketStore, HoldsCopiesAndNeverCountsUnfilledEntries)
{
    const std::vector<tovak_packet> packets = { { 0x60, 0x01 }, { 0x7d, 0x05, 0, 0, 0, 0, 0, 0 }, { 0x81, 0, 0, 0 } };
    ASSERT_EQ(0, tovak_data_store_packets(packets));
    ASSERT_EQ(3u, tovak_data_dm_packet_count());
    for (uint32_t i = 0; i < 3; i++)
        EXPECT_EQ(packets[i], tovak_data_get_dm_packet(i)) << i;
    EXPECT_FALSE(tovak_data_get_dm_packet(3).has_value());

    struct Case {
        int allocs; // before the first failure; the store itself is the first
        uint32_t count;
    };
    for (Case c : { Case{ 0, 0 }, Case{ 1, 0 }, Case{ 2, 1 }, Case{ 3, 2 }, Case{ 4, 3 } }) {
        allocs_left = c.allocs;
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.count == 3 ? 0 : -1, tovak_data_store_packets(packets, failing_alloc)) << c.allocs;
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(c.count, tovak_data_dm_packet_count()) << c.allocs;
        for (uint32_t i = 0; i < c.count; i++)
            EXPECT_EQ(packets[i], tovak_data_get_dm_packet(i)) << c.allocs;
        EXPECT_FALSE(tovak_data_get_dm_packet(c.count).has_value()) << c.allocs;
        EXPECT_EQ(c.count < 3, out.find("tovak_handler ERR >> ") != std::string::npos) << c.allocs;
    }
    ASSERT_EQ(0, tovak_data_store_packets({}));
    EXPECT_EQ(0u, tovak_data_dm_packet_count());
}

} // namespace
