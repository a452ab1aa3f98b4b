// The pack and unpack helpers every side builds on: exact bytes out, and
// malformed bytes in refused at each boundary rather than read past.
#include "protocol/tovak_layouts.h"

#include <gtest/gtest.h>

#include "hex_text.h"

namespace {

TEST(Layouts, RequestsAndEntriesPackLittleEndianAndPacked)
{
    tovak_bytes entries;
    tovak_pack_msg_entry(&entries, 5, 0x12345678);
    EXPECT_EQ("34 12 ef cd ab 89", hex_text(tovak_pack_u16_u32(0x1234, 0x89abcdef)));
    EXPECT_EQ("03 00 00 00 00 00 00 80", hex_text(tovak_pack_u32_u32(3, 0x80000000)));
    EXPECT_EQ("2f 78 00", hex_text(tovak_pack_text("/x")));
    EXPECT_EQ("03 00 61 62 00", hex_text(tovak_pack_counted_text("ab")));
    EXPECT_EQ("ff ff 61 62 00", hex_text(tovak_pack_counted_text("ab", 0xffff)));
    EXPECT_EQ("05 00 00 00 78 56 00 00", hex_text(entries)) << "only the low 16 bits of a mask are listed";
}

tovak_bytes bytes(std::initializer_list<uint8_t> b)
{
    return b;
}

TEST(Layouts, ListsAndTextsAreTakenOnlyWhole)
{
    std::vector<uint16_t> ids;
    EXPECT_TRUE(tovak_unpack_counted_ids(bytes({ 2, 0, 0, 0, 1, 0, 0x2c, 1 }).data(), 8, &ids));
    EXPECT_EQ((std::vector<uint16_t>{ 1, 300 }), ids);
    EXPECT_FALSE(tovak_unpack_counted_ids(bytes({ 2, 0, 0, 0, 1, 0, 0x2c }).data(), 7, &ids));
    // A count whose byte length wraps 32 bits.
    EXPECT_FALSE(tovak_unpack_counted_ids(bytes({ 0, 0, 0, 0x80 }).data(), 4, &ids));
    EXPECT_FALSE(tovak_unpack_ids(bytes({ 1, 0, 2 }).data(), 3, &ids));

    std::vector<tovak_wire_dpl_iface> ifaces;
    const tovak_bytes two = { 2, 0, 0, 0, 1, 2, 'a', 'b', 9, 0 };
    EXPECT_TRUE(tovak_unpack_dpl_ifaces(two.data(), 10, &ifaces));
    ASSERT_EQ(2u, ifaces.size());
    EXPECT_EQ("ab", ifaces[0].desc);
    EXPECT_EQ(9, ifaces[1].id);
    for (uint32_t len : { 9u, 7u, 5u, 3u })
        EXPECT_FALSE(tovak_unpack_dpl_ifaces(two.data(), len, &ifaces)) << len << ": cut short";
    EXPECT_FALSE(tovak_unpack_dpl_ifaces(bytes({ 1, 0, 0, 0, 1, 2, 'a', 'b', 0 }).data(), 9, &ifaces)) << "left over";

    std::string text;
    EXPECT_TRUE(tovak_unpack_counted_text(bytes({ 3, 0, 'a', 'b', 0 }).data(), 5, &text));
    EXPECT_EQ("ab", text);
    EXPECT_FALSE(tovak_unpack_counted_text(bytes({ 4, 0, 'a', 'b', 0 }).data(), 5, &text)) << "count past the end";
    EXPECT_FALSE(tovak_unpack_counted_text(bytes({ 3, 0, 'a', 0, 0 }).data(), 5, &text)) << "a zero inside";
    EXPECT_FALSE(tovak_unpack_counted_text(bytes({ 0, 0 }).data(), 2, &text)) << "no zero byte";
    EXPECT_FALSE(tovak_unpack_text(bytes({ 'a', 'b' }).data(), 2, &text));
}

} // namespace
