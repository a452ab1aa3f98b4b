#include "logging/tovak_packets.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "hex_text.h"

namespace {

TEST(EventMaskPacket, LayoutAndBits)
{
    struct Case {
        const char* name;
        std::vector<uint16_t> ids;
        uint16_t n;
        const char* bytes;
    };
    const Case cases[] = {
        { "first and last id, n = 16 takes 3 mask bytes", { 0, 15 }, 16, "82 00 00 00 10 00 01 80 00" },
        { "the spare byte still takes ids", { 23 }, 16, "82 00 00 00 10 00 00 00 80" },
        { "ids past the mask are left out", { 24, 1000, 3 }, 16, "82 00 00 00 10 00 08 00 00" },
        { "n = 0 still has one byte", { 7, 8 }, 0, "82 00 00 00 00 00 80" },
        { "n = 9: two bytes", { 8 }, 9, "82 00 00 00 09 00 00 01" },
        { "nothing configured", {}, 12, "82 00 00 00 0c 00 00 00" },
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.bytes, hex_text(tovak_build_event_mask_packet(c.ids, c.n))) << c.name;
}

TEST(LogMaskPackets, OnePacketPerEquipmentIdWithCodes)
{
    uint32_t last[TOVAK_EQUIPMENT_ID_COUNT] = {};
    struct Case {
        const char* name;
        std::vector<uint16_t> codes;
        uint32_t equip;
        uint32_t last_item;
        std::vector<const char*> packets;
    };
    const Case cases[] = {
        { "code at its last bit", { 0x4007 }, 4, 8, { "73 00 00 00 03 00 00 00 04 00 00 00 08 00 00 00 80" } },
        { "code equal to the limit ends the walk", { 0x4008 }, 4, 8,
          { "73 00 00 00 03 00 00 00 04 00 00 00 08 00 00 00 00" } },
        { "the walk stops at the first code past the limit", { 0x400a, 0x4001, 0x4002 }, 4, 9,
          { "73 00 00 00 03 00 00 00 04 00 00 00 09 00 00 00 06 00" } },
        { "last item 0: no packet even with codes", { 0x1000 }, 1, 0, {} },
        { "codes of other equipment ids only: no packet", { 0x2000 }, 1, 16, {} },
        { "equipment 0", { 0x0000, 0x0009 }, 0, 10, { "73 00 00 00 03 00 00 00 00 00 00 00 0a 00 00 00 01 02" } },
        { "equipment 15", { 0xf003 }, 15, 4, { "73 00 00 00 03 00 00 00 0f 00 00 00 04 00 00 00 08" } },
    };
    for (const Case& c : cases) {
        for (uint32_t& l : last)
            l = 0;
        last[c.equip] = c.last_item;
        auto packets = tovak_build_log_mask_packets(c.codes, last);
        ASSERT_EQ(c.packets.size(), packets.size()) << c.name;
        for (size_t i = 0; i < packets.size(); i++)
            EXPECT_EQ(c.packets[i], hex_text(packets[i])) << c.name;
    }
}

TEST(LogMaskPackets, EquipmentIdsInOrder)
{
    uint32_t last[TOVAK_EQUIPMENT_ID_COUNT];
    for (uint32_t& l : last)
        l = 3003;
    auto packets = tovak_build_log_mask_packets({ 0xb061, 0x412f, 0x713f, 0xb0c0, 0x7140 }, last);
    ASSERT_EQ(3u, packets.size());
    EXPECT_EQ(4, packets[0][8]);
    EXPECT_EQ(7, packets[1][8]);
    EXPECT_EQ(11, packets[2][8]);
}

TEST(LogMaskPackets, AbsurdLimitsBuildNothingRatherThanHugePackets)
{
    uint32_t last[TOVAK_EQUIPMENT_ID_COUNT] = {};
    last[1] = 0xffffffff;
    EXPECT_TRUE(tovak_build_log_mask_packets({ 0x1001 }, last).empty());
}

TEST(MsgMaskPackets, OnePerRangeWithEveryMask)
{
    struct Case {
        const char* name;
        std::vector<std::pair<uint16_t, uint32_t>> masks;
        std::vector<tovak_msg_range> ranges;
        std::vector<const char*> packets;
    };
    const Case cases[] = {
        { "range without configured SSIDs", {}, { { 500, 501 } },
          { "7d 04 f4 01 f5 01 00 00 00 00 00 00 00 00 00 00" } },
        { "masks in place, full 32 bits", { { 6, 0x10001 }, { 5, 0x18 } }, { { 5, 7 } },
          { "7d 04 05 00 07 00 00 00 18 00 00 00 01 00 01 00 00 00 00 00" } },
        { "one SSID range", { { 8000, 0xffffffff } }, { { 8000, 8000 } },
          { "7d 04 40 1f 40 1f 00 00 ff ff ff ff" } },
        { "ranges in table order", { { 3, 1 } }, { { 10, 10 }, { 0, 3 } },
          { "7d 04 0a 00 0a 00 00 00 00 00 00 00",
            "7d 04 00 00 03 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00" } },
        { "a reversed range is skipped", { { 3, 1 } }, { { 9, 2 } }, {} },
    };
    for (const Case& c : cases) {
        auto packets = tovak_build_msg_mask_packets(c.masks, c.ranges);
        ASSERT_EQ(c.packets.size(), packets.size()) << c.name;
        for (size_t i = 0; i < packets.size(); i++)
            EXPECT_EQ(c.packets[i], hex_text(packets[i])) << c.name;
    }
}

TEST(MsgMaskPackets, WholeSsidSpaceIsRefusedNotBuilt)
{
    EXPECT_TRUE(tovak_build_msg_mask_packets({ { 1, 1 } }, { { 0, 65535 } }).empty());
}

} // namespace
