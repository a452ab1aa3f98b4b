// HDLC framing as the host diag library and the simulated modem do it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "hdlc.h"
#include "platform/diag.h"

namespace {

using Bytes = std::vector<uint8_t>;

// diag_hdlc_encode into an area of out_size bytes followed by guard bytes.
Bytes encode(const Bytes& pkt, size_t out_size, int* state_out = nullptr)
{
    std::vector<uint8_t> area(out_size + 8, 0xAA);
    diag_send_desc_type src = { pkt.data(), pkt.data() + pkt.size() - 1, 0, 1 };
    diag_hdlc_dest_type dst = { area.data(), area.data() + out_size - 1 };
    diag_hdlc_encode(&src, &dst);
    for (size_t i = out_size; i < area.size(); i++)
        EXPECT_EQ(0xAA, area[i]) << "wrote past the output limit at " << i;
    if (state_out)
        *state_out = src.state;
    return Bytes(area.data(), static_cast<uint8_t*>(dst.dest));
}

// diag_hdlc_decode as the daemon calls it; the payload without CRC and flag.
int decode(const Bytes& frame, Bytes* payload, unsigned dest_size = 1024, unsigned* dest_idx = nullptr)
{
    Bytes src = frame;
    std::vector<uint8_t> dest(dest_size);
    diag_hdlc_decode_type h = { src.data(), 0, unsigned(src.size()), dest.data(), 0, dest_size, 0 };
    int r = diag_hdlc_decode(&h);
    if (dest_idx)
        *dest_idx = h.dest_idx;
    if (r && payload)
        *payload = Bytes(dest.begin(), dest.begin() + (h.dest_idx - 3));
    return r;
}

TEST(Crc16X25, StandardCheckValue)
{
    const char* check = "123456789";
    EXPECT_EQ(0x906E, hdlc_crc16(reinterpret_cast<const uint8_t*>(check), 9));
    EXPECT_EQ(0x0000, hdlc_crc16(nullptr, 0)) << "empty data: init, then the final XOR";
}

struct FrameVector {
    Bytes pkt;
    Bytes frame;
};

TEST(HdlcFrame, KnownVectorsFromBothEncoders)
{
    // clang-format off
    const FrameVector vectors[] = {
        { { 0x60, 0x01 },       { 0x60, 0x01, 0x9B, 0x7B, 0x7E } },
        { { 0x7D, 0x01 },       { 0x7D, 0x5D, 0x01, 0x72, 0x5E, 0x7E } },
        { { 0x60, 0x00 },       { 0x60, 0x00, 0x12, 0x6A, 0x7E } },
    };
    // clang-format on
    for (const FrameVector& v : vectors) {
        EXPECT_EQ(v.frame, hdlc_frame(v.pkt));
        EXPECT_EQ(v.frame, encode(v.pkt, 64));
    }
}

TEST(HdlcFrame, EveryByteValueRoundTrips)
{
    Bytes all(256);
    for (int i = 0; i < 256; i++)
        all[size_t(i)] = uint8_t(i);
    std::vector<Bytes> packets = { all };
    for (int i = 0; i < 256; i++)
        packets.push_back({ uint8_t(i), uint8_t(255 - i), 0x7E, 0x7D });
    for (const Bytes& p : packets) {
        Bytes frame = encode(p, 1024);
        ASSERT_EQ(frame, hdlc_frame(p));
        // Only the closing flag is a flag; escapes are never doubled.
        EXPECT_EQ(0x7E, frame.back());
        EXPECT_EQ(frame.end() - 1, std::find(frame.begin(), frame.end(), 0x7E));
        Bytes back;
        ASSERT_EQ(1, decode(frame, &back));
        EXPECT_EQ(p, back);
        Bytes back2;
        ASSERT_EQ(HdlcResult::ok, hdlc_unframe(frame.data(), frame.size(), &back2));
        EXPECT_EQ(p, back2);
    }
    EXPECT_EQ(256u + 2 + 2 + 1, hdlc_frame(all).size()) << "0x7D and 0x7E each take two bytes";
}

TEST(HdlcDecode, AcceptsLeadingFlagsAndRefusesDamagedFrames)
{
    const Bytes pkt = { 0x73, 0x00, 0x7E };
    Bytes good = hdlc_frame(pkt), bad_crc = good, flipped_body = good;
    bad_crc[bad_crc.size() - 2] ^= 0x01;
    flipped_body[1] ^= 0x40;
    Bytes lead1 = good, lead3 = good;
    lead1.insert(lead1.begin(), 0x7E);
    lead3.insert(lead3.begin(), 3, 0x7E);
    struct Case {
        const char* name;
        Bytes frame;
        HdlcResult why;
    };
    const Case cases[] = {
        { "one leading flag", lead1, HdlcResult::ok },
        { "repeated leading flags", lead3, HdlcResult::ok },
        { "bad crc", bad_crc, HdlcResult::bad_crc },
        { "changed byte", flipped_body, HdlcResult::bad_crc },
        { "escape before flag", { 0x60, 0x7D, 0x7E }, HdlcResult::bad_escape },
        { "no closing flag", Bytes(good.begin(), good.end() - 1), HdlcResult::incomplete },
        { "crc only", { 0x12, 0x34, 0x7E }, HdlcResult::too_short },
        { "nothing", {}, HdlcResult::incomplete },
    };
    for (const Case& c : cases) {
        Bytes a, b;
        EXPECT_EQ(c.why == HdlcResult::ok, decode(c.frame, &a)) << c.name;
        EXPECT_EQ(c.why, hdlc_unframe(c.frame.data(), c.frame.size(), &b)) << c.name;
        EXPECT_TRUE(c.why != HdlcResult::ok || (a == pkt && b == pkt)) << c.name;
    }
}

TEST(HdlcDecode, HonoursTheDestinationSize)
{
    Bytes pkt(100, 0x11);
    Bytes frame = hdlc_frame(pkt);
    EXPECT_EQ(0, decode(frame, nullptr, 102)) << "payload and CRC fit, the flag does not";
    Bytes payload;
    EXPECT_EQ(1, decode(frame, &payload, 103));
    EXPECT_EQ(pkt, payload);
}

TEST(HdlcEncode, NeverPassesItsOutputLimitAndCanContinue)
{
    Bytes pkt = { 0x7D, 0x05, 0x7E, 0x00, 0x7D, 0x7D, 0x01, 0x02 };
    Bytes whole = hdlc_frame(pkt);
    for (size_t limit = 1; limit < whole.size(); limit++) {
        int state = 0;
        Bytes part = encode(pkt, limit, &state);
        EXPECT_LE(part.size(), limit);
        EXPECT_EQ(part.end(), std::find(part.begin(), part.end(), 0x7E)) << "no flag in a frame cut at " << limit;
        EXPECT_NE(0, state) << limit;
    }
    // Continuing where a short area stopped yields the same frame.
    std::vector<uint8_t> area(64, 0);
    diag_send_desc_type src = { pkt.data(), pkt.data() + pkt.size() - 1, 0, 1 };
    size_t produced = 0;
    for (int round = 0; round < 20 && (round == 0 || src.state != 0); round++) {
        diag_hdlc_dest_type dst = { area.data() + produced, area.data() + produced + 2 };
        diag_hdlc_encode(&src, &dst);
        produced = size_t(static_cast<uint8_t*>(dst.dest) - area.data());
    }
    EXPECT_EQ(0, src.state);
    EXPECT_EQ(whole, Bytes(area.begin(), area.begin() + long(produced)));
}

TEST(HdlcEncode, PiecesWithoutTerminateShareOneCrc)
{
    Bytes a = { 0x4B, 0x2A }, b = { 0x02, 0x00 };
    std::vector<uint8_t> area(64, 0);
    diag_send_desc_type src = { a.data(), a.data() + 1, 0, 0 };
    diag_hdlc_dest_type dst = { area.data(), area.data() + area.size() - 1 };
    diag_hdlc_encode(&src, &dst);
    src.pkt = b.data();
    src.last = b.data() + 1;
    src.terminate = 1;
    diag_hdlc_encode(&src, &dst);
    size_t n = size_t(static_cast<uint8_t*>(dst.dest) - area.data());
    EXPECT_EQ(hdlc_frame({ 0x4B, 0x2A, 0x02, 0x00 }), Bytes(area.begin(), area.begin() + long(n)));
}

} // namespace
