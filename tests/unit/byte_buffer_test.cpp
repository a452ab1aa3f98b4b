#include "protocol/byte_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

byte_buffer make(std::vector<uint8_t>& area)
{
    byte_buffer bb;
    EXPECT_EQ(1u, byte_buffer_init(&bb, area.data(), uint32_t(area.size())));
    return bb;
}

TEST(ByteBuffer, InitRefusesBadArguments)
{
    uint8_t area[4];
    struct Case {
        const char* name;
        bool null_record;
        void* data;
        uint32_t size;
    };
    const Case cases[] = {
        { "null record", true, area, 4 },
        { "null data", false, nullptr, 4 },
        { "size zero", false, area, 0 },
    };
    for (const Case& c : cases) {
        byte_buffer bb;
        memset(&bb, 0, sizeof bb);
        EXPECT_EQ(0u, byte_buffer_init(c.null_record ? nullptr : &bb, c.data, c.size)) << c.name;
        EXPECT_EQ(0u, byte_buffer_length(&bb)) << c.name;
        EXPECT_NE(BYTE_BUFFER_MAGIC, bb.magic) << c.name;
    }
}

TEST(ByteBuffer, ReadsLittleEndianAndStopsAtTheBound)
{
    std::vector<uint8_t> area = { 0x78, 0x56, 0x34, 0x12, 0xcd, 0xab };
    byte_buffer bb = make(area);
    uint32_t v32 = 0;
    uint16_t v16 = 0;
    EXPECT_EQ(1u, byte_buffer_read_u32(&bb, &v32));
    EXPECT_EQ(0x12345678u, v32);
    // Two bytes left: a u32 fails and changes nothing, a u16 still fits.
    v32 = 7;
    EXPECT_EQ(0u, byte_buffer_read_u32(&bb, &v32));
    EXPECT_EQ(7u, v32);
    EXPECT_EQ(4u, byte_buffer_length(&bb));
    EXPECT_EQ(1u, byte_buffer_read_u16(&bb, &v16));
    EXPECT_EQ(0xabcdu, v16);
    EXPECT_EQ(6u, byte_buffer_length(&bb));
    EXPECT_EQ(0u, byte_buffer_read_u16(&bb, &v16));
}

TEST(ByteBuffer, WritesLittleEndianPacked)
{
    std::vector<uint8_t> area(7, 0xee);
    byte_buffer bb = make(area);
    EXPECT_EQ(1u, byte_buffer_write_u16(&bb, 0x0102));
    EXPECT_EQ(1u, byte_buffer_write_u8(&bb, 0x03));
    EXPECT_EQ(1u, byte_buffer_write_u32(&bb, 0x07060504));
    EXPECT_EQ((std::vector<uint8_t>{ 0x02, 0x01, 0x03, 0x04, 0x05, 0x06, 0x07 }), area);
    EXPECT_EQ(0u, byte_buffer_write_u8(&bb, 0xff));
    EXPECT_EQ(7u, byte_buffer_length(&bb));
}

TEST(ByteBuffer, ReplyAreaTakesExactlyItsCapacity)
{
    std::vector<uint8_t> area(5120);
    std::vector<uint8_t> src(5121, 0x5a);
    byte_buffer bb = make(area);
    EXPECT_EQ(0u, byte_buffer_write_bytes(&bb, src.data(), 5121));
    EXPECT_EQ(0u, byte_buffer_length(&bb));
    EXPECT_EQ(1u, byte_buffer_write_bytes(&bb, src.data(), 5120));
    EXPECT_EQ(0u, byte_buffer_write_u8(&bb, 1));
    EXPECT_EQ(5120u, byte_buffer_length(&bb));
}

TEST(ByteBuffer, ByteCountsNeverWrapAround)
{
    std::vector<uint8_t> area(16);
    uint8_t out[16];
    byte_buffer bb = make(area);
    uint16_t skip;
    ASSERT_EQ(1u, byte_buffer_read_u16(&bb, &skip));
    for (uint32_t count : { 15u, 0xffffffffu, 0xfffffff2u, 0x80000000u }) {
        EXPECT_EQ(0u, byte_buffer_read_bytes(&bb, out, count)) << count;
        EXPECT_EQ(0u, byte_buffer_write_bytes(&bb, out, count)) << count;
        EXPECT_EQ(2u, byte_buffer_length(&bb)) << count;
    }
    EXPECT_EQ(1u, byte_buffer_read_bytes(&bb, out, 14));
    EXPECT_EQ(1u, byte_buffer_read_bytes(&bb, out, 0));
    EXPECT_EQ(16u, byte_buffer_length(&bb));
}

TEST(ByteBuffer, EveryOperationRefusesAnUninitialisedRecord)
{
    uint8_t area[8] = {};
    byte_buffer bb = { area, 8, 0, 0x87654321 };
    uint32_t v32;
    uint16_t v16;
    EXPECT_EQ(0u, byte_buffer_read_u32(&bb, &v32));
    EXPECT_EQ(0u, byte_buffer_read_u16(&bb, &v16));
    EXPECT_EQ(0u, byte_buffer_read_bytes(&bb, area, 1));
    EXPECT_EQ(0u, byte_buffer_write_u32(&bb, 1));
    EXPECT_EQ(0u, byte_buffer_write_u16(&bb, 1));
    EXPECT_EQ(0u, byte_buffer_write_u8(&bb, 1));
    EXPECT_EQ(0u, byte_buffer_write_bytes(&bb, area, 1));
    EXPECT_EQ(0u, byte_buffer_length(&bb));
    EXPECT_EQ(0u, bb.position);
}

TEST(ByteBuffer, NullArgumentsFail)
{
    std::vector<uint8_t> area(8);
    byte_buffer bb = make(area);
    EXPECT_EQ(0u, byte_buffer_read_u32(&bb, nullptr));
    EXPECT_EQ(0u, byte_buffer_read_u16(&bb, nullptr));
    EXPECT_EQ(0u, byte_buffer_read_bytes(&bb, nullptr, 1));
    EXPECT_EQ(0u, byte_buffer_write_bytes(&bb, nullptr, 1));
    EXPECT_EQ(0u, byte_buffer_write_u32(nullptr, 1));
    EXPECT_EQ(0u, byte_buffer_length(nullptr));
    EXPECT_EQ(0u, byte_buffer_length(&bb));
}

TEST(ByteBuffer, InitRebindsAnInitialisedRecord)
{
    std::vector<uint8_t> a = { 1, 0 };
    std::vector<uint8_t> b = { 2, 0, 0, 0 };
    byte_buffer bb = make(a);
    uint16_t v16;
    ASSERT_EQ(1u, byte_buffer_read_u16(&bb, &v16));
    ASSERT_EQ(1u, byte_buffer_init(&bb, b.data(), 4));
    uint32_t v32;
    EXPECT_EQ(1u, byte_buffer_read_u32(&bb, &v32));
    EXPECT_EQ(2u, v32);
}

} // namespace
