#include "protocol/byte_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

TEST(ByteBuffer, ReadsLittleEndianAndAFailedReadChangesNothing)
{
    uint8_t area[] = { 0x78, 0x56, 0x34, 0x12, 0xcd, 0xab };
    byte_buffer bb;
    ASSERT_EQ(1u, byte_buffer_init(&bb, area, sizeof area));
    uint32_t v32 = 0;
    uint16_t v16 = 0;
    EXPECT_EQ(1u, byte_buffer_read_u32(&bb, &v32));
    EXPECT_EQ(0x12345678u, v32);
    v32 = 7;
    EXPECT_EQ(0u, byte_buffer_read_u32(&bb, &v32));
    EXPECT_EQ(7u, v32);
    EXPECT_EQ(4u, byte_buffer_length(&bb));
    // Counts near 4 G must not wrap past the bound.
    uint8_t out[2] = { 9, 9 };
    for (uint32_t n : { 3u, 0xffffffffu, 0xfffffffdu })
        EXPECT_EQ(0u, byte_buffer_read_bytes(&bb, out, n)) << n;
    EXPECT_EQ(9, out[0]);
    EXPECT_EQ(1u, byte_buffer_read_u16(&bb, &v16));
    EXPECT_EQ(0xabcdu, v16);
    EXPECT_EQ(6u, byte_buffer_length(&bb));
    EXPECT_EQ(1u, byte_buffer_read_bytes(&bb, out, 0));
}

TEST(ByteBuffer, WriterFillsItsAreaPackedAndNotOneBytePast)
{
    std::vector<uint8_t> area(5120, 0xee);
    byte_buffer bb;
    ASSERT_EQ(1u, byte_buffer_init(&bb, area.data(), uint32_t(area.size())));
    EXPECT_EQ(1u, byte_buffer_write_u16(&bb, 0x0102));
    EXPECT_EQ(1u, byte_buffer_write_u32(&bb, 0x03040506));
    EXPECT_EQ(1u, byte_buffer_write_u8(&bb, 0x07));
    EXPECT_EQ((std::vector<uint8_t>{ 2, 1, 6, 5, 4, 3, 7, 0xee }),
              std::vector<uint8_t>(area.begin(), area.begin() + 8));
    std::vector<uint8_t> fill(5120 - 7, 0x11);
    EXPECT_EQ(0u, byte_buffer_write_bytes(&bb, fill.data(), 5120 - 6));
    EXPECT_EQ(1u, byte_buffer_write_bytes(&bb, fill.data(), 5120 - 7));
    EXPECT_EQ(0u, byte_buffer_write_u8(&bb, 0x22));
    EXPECT_EQ(1u, byte_buffer_write_bytes(&bb, fill.data(), 0));
    EXPECT_EQ(5120u, byte_buffer_length(&bb));
    EXPECT_EQ(0x11, area.back());
}

TEST(ByteBuffer, RecordsNeverInitialisedOrGivenBadArgumentsAreRefused)
{
    uint8_t area[8] = {};
    byte_buffer bb;
    memset(&bb, 0xa5, sizeof bb);
    // Each refusal prints one error line, on stdout only.
    testing::internal::CaptureStdout();
    EXPECT_EQ(0u, byte_buffer_init(&bb, nullptr, 8));
    EXPECT_EQ(0u, byte_buffer_init(&bb, area, 0));
    EXPECT_EQ(0u, byte_buffer_init(nullptr, area, 8));
    uint32_t v32 = 0;
    uint16_t v16 = 0;
    EXPECT_EQ(0u, byte_buffer_read_u32(&bb, &v32));
    EXPECT_EQ(0u, byte_buffer_read_u16(&bb, &v16));
    EXPECT_EQ(0u, byte_buffer_read_bytes(&bb, area, 1));
    EXPECT_EQ(0u, byte_buffer_write_u32(&bb, 1));
    EXPECT_EQ(0u, byte_buffer_write_u16(&bb, 1));
    EXPECT_EQ(0u, byte_buffer_write_u8(&bb, 1));
    EXPECT_EQ(0u, byte_buffer_write_bytes(&bb, area, 1));
    EXPECT_EQ(0u, byte_buffer_length(&bb));
    EXPECT_EQ(0u, byte_buffer_length(nullptr));
    const std::string printed = testing::internal::GetCapturedStdout();
    size_t lines = 0;
    for (size_t at = printed.find("byte_buffer ERR >> "); at != std::string::npos;
         at = printed.find("byte_buffer ERR >> ", at + 1))
        lines++;
    EXPECT_EQ(12u, lines) << printed;

    ASSERT_EQ(1u, byte_buffer_init(&bb, area, 8));
    EXPECT_EQ(0u, byte_buffer_read_u32(&bb, nullptr));
    EXPECT_EQ(0u, byte_buffer_write_bytes(&bb, nullptr, 1));
    EXPECT_EQ(0u, byte_buffer_length(&bb));
    // Init again rebinds.
    ASSERT_EQ(1u, byte_buffer_write_u32(&bb, 1));
    ASSERT_EQ(1u, byte_buffer_init(&bb, area + 4, 2));
    EXPECT_EQ(0u, byte_buffer_length(&bb));
    EXPECT_EQ(0u, byte_buffer_write_u32(&bb, 1));
}

} // namespace
