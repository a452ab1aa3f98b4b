// The simulated logger: entries as readers of /dev/log get them, logdw
// datagrams, and a queue that drops whole oldest entries and resumes a
// FIFO write where the pipe cut it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "canned.h"
#include "hex_text.h"
#include "le.h"
#include "logger.h"

namespace {

TEST(Logger, EntryLayouts)
{
    LogEntry e;
    e.pid = 0x0102;
    e.tid = 3;
    e.sec = 0x11223344;
    e.nsec = 5;
    e.prio = 4;
    e.tag = "T";
    e.msg = "hi";
    EXPECT_EQ("06 00 00 00 02 01 00 00 03 00 00 00 44 33 22 11 05 00 00 00 04 54 00 68 69 00",
              hex_text(logger_entry_bytes(e)));
    // An event: tag, list of two floats; nothing after the tag reads as a NUL.
    const CannedEvent& ev = canned_events()[2];
    e.binary = android_event_payload(ev, { 12.0f, 0.5f });
    std::vector<uint8_t> b = logger_entry_bytes(e);
    ASSERT_EQ(20u + 4 + 2 + 2 * 5, b.size());
    EXPECT_EQ(ev.tag, get_u32(&b[20]));
    EXPECT_EQ("03 02 04", hex_text({ b[24], b[25], b[26] }));
    EXPECT_LE(b[20], 8) << "reads as a priority";
    EXPECT_EQ(0, b[23]);
    for (size_t i = 24; i < b.size(); i++)
        EXPECT_NE(0, b[i]) << i;

    LogEntry back;
    int buffer = -1;
    e.binary.clear();
    ASSERT_TRUE(parse_logdw(make_logdw(1, e).data(), make_logdw(1, e).size(), 77, &back, &buffer));
    EXPECT_EQ(1, buffer);
    EXPECT_EQ("T/hi/77/3", back.tag + "/" + back.msg + "/" + std::to_string(back.pid) + "/" + std::to_string(back.tid));
    for (std::vector<uint8_t> bad : { std::vector<uint8_t>{ 4, 0, 0 }, make_logdw(1, e) }) {
        bad[0] = 4; // no such buffer, or too short
        EXPECT_FALSE(parse_logdw(bad.data(), bad.size(), 1, &back, &buffer));
    }
}

TEST(Logger, QueueDropsWholeOldestAndResumesPartialWrites)
{
    LogQueue q(100);
    std::vector<uint8_t> a(40, 'a'), b(40, 'b'), c(40, 'c');
    q.push(a);
    q.push(b);
    q.push(c);
    EXPECT_EQ(2u, q.entries());
    EXPECT_EQ(1u, q.dropped());
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_NONBLOCK | O_CLOEXEC));
    std::vector<uint8_t> got, buf(1 << 16);
    auto drain = [&] {
        for (ssize_t n; (n = read(p[0], buf.data(), buf.size())) > 0;)
            got.insert(got.end(), buf.begin(), buf.begin() + n);
    };
    // Beyond what the pipe holds in one piece: written in parts.
    std::vector<uint8_t> big(200000, 'x');
    q.push(big); // over the limit: b and c go, big stays however large
    ASSERT_TRUE(q.flush(p[1]));
    ASSERT_FALSE(q.empty()) << "the pipe took part of it";
    q.push(c); // over the limit, but a begun entry is never dropped
    for (int i = 0; i < 10 && !q.empty(); i++) {
        drain();
        ASSERT_TRUE(q.flush(p[1]));
    }
    drain();
    std::vector<uint8_t> want = big;
    want.insert(want.end(), c.begin(), c.end());
    EXPECT_TRUE(q.empty());
    EXPECT_EQ(want.size(), got.size());
    EXPECT_TRUE(want == got);
    close(p[0]);
    close(p[1]);
}

} // namespace
