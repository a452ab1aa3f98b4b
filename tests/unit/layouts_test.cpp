// The unpack helpers every side reads replies with, at their boundaries:
// malformed bytes are refused, never read past. Well-formed replies of every
// layout are read in the tovakctl table test.
#include "protocol/tovak_layouts.h"

#include <gtest/gtest.h>

namespace {

tovak_bytes bytes(std::initializer_list<uint8_t> b)
{
    return b;
}

TEST(Layouts, ListsAndTextsAreTakenOnlyWhole)
{
    std::vector<uint16_t> ids;
    EXPECT_FALSE(tovak_unpack_counted_ids(bytes({ 2, 0, 0, 0, 1, 0, 0x2c }).data(), 7, &ids));
    // A count whose byte length wraps 32 bits.
    EXPECT_FALSE(tovak_unpack_counted_ids(bytes({ 0, 0, 0, 0x80 }).data(), 4, &ids));
    EXPECT_FALSE(tovak_unpack_ids(bytes({ 1, 0, 2 }).data(), 3, &ids));

    std::vector<tovak_wire_dpl_iface> ifaces;
    const tovak_bytes two = { 2, 0, 0, 0, 1, 2, 'a', 'b', 9, 0 };
    EXPECT_TRUE(tovak_unpack_dpl_ifaces(two.data(), 10, &ifaces));
    for (uint32_t len : { 9u, 7u, 5u, 3u })
        EXPECT_FALSE(tovak_unpack_dpl_ifaces(two.data(), len, &ifaces)) << len << ": cut short";
    EXPECT_FALSE(tovak_unpack_dpl_ifaces(bytes({ 1, 0, 0, 0, 1, 2, 'a', 'b', 0 }).data(), 9, &ifaces)) << "left over";

    std::string text;
    EXPECT_FALSE(tovak_unpack_counted_text(bytes({ 4, 0, 'a', 'b', 0 }).data(), 5, &text)) << "count past the end";
    EXPECT_FALSE(tovak_unpack_counted_text(bytes({ 3, 0, 'a', 0, 0 }).data(), 5, &text)) << "a zero inside";
    EXPECT_FALSE(tovak_unpack_counted_text(bytes({ 0, 0 }).data(), 2, &text)) << "no zero byte";
    EXPECT_FALSE(tovak_unpack_text(bytes({ 'a', 'b' }).data(), 2, &text));

    // A count given, 0 included, is sent as it is: tests lie with it.
    EXPECT_EQ(bytes({ 0, 0, 'a', 0 }), tovak_pack_counted_text("a", 0));
    EXPECT_EQ(bytes({ 2, 0, 'a', 0 }), tovak_pack_counted_text("a"));
}

} // namespace
