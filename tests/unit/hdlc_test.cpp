// HDLC framing as the modem and the diag library share it.
#include <gtest/gtest.h>

#include "hdlc.h"
#include "hex_text.h"

namespace {

TEST(Hdlc, FramesEscapesAndChecks)
{
    const uint8_t check[] = { '1', '2', '3', '4', '5', '6', '7', '8', '9' };
    EXPECT_EQ(0x906E, hdlc_crc16(check, sizeof check)) << "CRC-16/X-25 check value";
    // Flag and escape bytes in the body, and a CRC byte that needs escaping.
    for (const std::vector<uint8_t>& pkt : std::vector<std::vector<uint8_t>>{
             { 0x60, 0x00 }, { 0x7E, 0x7D, 0x5E }, { 0x4B, 0x2A, 0x7D, 0x7E, 0x00, 0xFF } }) {
        std::vector<uint8_t> frame = hdlc_frame(pkt), out;
        EXPECT_EQ(0x7E, frame.back());
        for (size_t i = 0; i + 1 < frame.size(); i++)
            ASSERT_NE(0x7E, frame[i]) << hex_text(frame);
        std::vector<uint8_t> lead = { 0x7E, 0x7E };
        lead.insert(lead.end(), frame.begin(), frame.end());
        size_t used = 0;
        ASSERT_EQ(HdlcResult::ok, hdlc_unframe(lead.data(), lead.size(), &out, &used)) << hex_text(frame);
        EXPECT_EQ(hex_text(pkt), hex_text(out));
        EXPECT_EQ(lead.size(), used);
    }
    const struct { std::vector<uint8_t> frame; HdlcResult r; } bad[] = {
        { hdlc_frame(std::vector<uint8_t>{ 0x60, 0x01 }.data(), 2, 0xFFFF), HdlcResult::bad_crc },
        { { 0x60, 0x7D, 0x7E }, HdlcResult::bad_escape },
        { { 0x60, 0x7E }, HdlcResult::too_short },
        { { 0x60, 0x01, 0x02 }, HdlcResult::incomplete },
    };
    for (const auto& b : bad) {
        std::vector<uint8_t> out;
        EXPECT_EQ(b.r, hdlc_unframe(b.frame.data(), b.frame.size(), &out)) << hex_text(b.frame);
    }
}

} // namespace
