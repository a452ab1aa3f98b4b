// Framing of diag requests into the 1024-byte send buffer, through the
// platform's HDLC encoder.
#include "logging/tovak_diag.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "hdlc.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string hex(const uint8_t* p, size_t n)
{
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; i++) {
        snprintf(b, sizeof b, "%02x ", p[i]);
        s += b;
    }
    if (!s.empty())
        s.pop_back();
    return s;
}

// Frames pkt into a send buffer of TOVAK_DIAG_BUFFER_SIZE bytes followed by
// guard bytes that the encoder must not touch.
struct Framed {
    int len;
    std::string bytes; // the frame as hex, when there is one
    bool guard_intact;
};

Framed frame(const Bytes& pkt, bool remote)
{
    const size_t guard = 16;
    Bytes buf(TOVAK_DIAG_BUFFER_SIZE + guard, 0xCC);
    int len = tovak_hdlc_encode_frame(pkt.empty() ? nullptr : pkt.data(), uint32_t(pkt.size()), buf.data(),
                                      TOVAK_DIAG_BUFFER_SIZE, remote);
    bool intact = true;
    for (size_t i = TOVAK_DIAG_BUFFER_SIZE; i < buf.size(); i++)
        intact = intact && buf[i] == 0xCC;
    return { len, len > 0 ? hex(buf.data(), size_t(len)) : "", intact };
}

TEST(DiagFrame, DataTypeWordsThenTheEscapedFrame)
{
    struct Case {
        const char* name;
        Bytes pkt;
        bool remote;
        int len;
        const char* bytes;
    };
    const Case cases[] = {
        { "two bytes: 4 + 2 + CRC + flag", { 0x60, 0x00 }, false, 9, "20 00 00 00 60 00 12 6a 7e" },
        { "the remote modem's address word", { 0x60, 0x01 }, true, 13, "20 00 00 00 ff ff ff ff 60 01 9b 7b 7e" },
        { "an escape byte in the packet", { 0x7d, 0x01 }, false, 10, "20 00 00 00 7d 5d 01 72 5e 7e" },
        { "a flag byte in the packet", { 0x7e }, false, 0, nullptr },
        { "empty packet", {}, false, -1, "" },
    };
    for (const Case& c : cases) {
        Framed f = frame(c.pkt, c.remote);
        EXPECT_TRUE(f.guard_intact) << c.name;
        if (c.bytes == nullptr) {
            // Against the reference framing: escaped flag, CRC, one closing flag.
            Bytes want = { 0x20, 0, 0, 0 };
            Bytes tail = hdlc_frame(c.pkt);
            want.insert(want.end(), tail.begin(), tail.end());
            EXPECT_EQ(int(want.size()), f.len) << c.name;
            EXPECT_EQ(hex(want.data(), want.size()), f.bytes) << c.name;
            EXPECT_EQ("20 00 00 00 7d 5e", f.bytes.substr(0, 17)) << c.name;
            continue;
        }
        EXPECT_EQ(c.len, f.len) << c.name;
        EXPECT_EQ(c.bytes, f.bytes) << c.name;
    }
    uint8_t buf[TOVAK_DIAG_BUFFER_SIZE];
    EXPECT_EQ(-1, tovak_hdlc_encode_frame(nullptr, 2, buf, sizeof buf));
}

// Around the largest packet that fits, for packets that need no escaping and
// packets that are all escapes: what fits frames whole, what does not is
// refused, and nothing is written past the buffer.
TEST(DiagFrame, WhatDoesNotFitTheBufferIsRefused)
{
    for (bool remote : { false, true }) {
        const size_t head = remote ? 8 : 4;
        for (uint8_t fill : { uint8_t(0x00), uint8_t(0x7e) }) {
            const size_t plain_room = TOVAK_DIAG_BUFFER_SIZE - head - 3;
            const size_t around = fill == 0x7e ? plain_room / 2 : plain_room;
            bool saw_fit = false;
            bool saw_refusal = false;
            for (size_t n = around - 6; n <= around + 6; n++) {
                Bytes pkt(n, fill);
                pkt[0] = 0x73; // a command byte, as every request has
                const size_t want = head + hdlc_frame(pkt).size();
                Framed f = frame(pkt, remote);
                EXPECT_TRUE(f.guard_intact) << n;
                if (want <= TOVAK_DIAG_BUFFER_SIZE) {
                    saw_fit = true;
                    EXPECT_EQ(int(want), f.len) << "remote " << remote << " fill " << int(fill) << " n " << n;
                } else {
                    saw_refusal = true;
                    EXPECT_EQ(-1, f.len) << "remote " << remote << " fill " << int(fill) << " n " << n;
                }
            }
            EXPECT_TRUE(saw_fit && saw_refusal) << "the sweep must cross the limit";
        }
    }
}

} // namespace
