// The simulated logger's formats: logdw datagrams in, binary entries to the
// FIFOs, threadtime text to the file; and its bounded queues.
#include <gtest/gtest.h>

#include <regex>
#include <tuple>

#include "le.h"
#include "logger.h"
#include "sim_link.h"

namespace {

using Bytes = std::vector<uint8_t>;

LogEntry entry(const std::string& tag, const std::string& msg)
{
    LogEntry e;
    e.pid = 4321;
    e.tid = 4322;
    e.sec = 1700000000;
    e.nsec = 123456789;
    e.prio = 3;
    e.tag = tag;
    e.msg = msg;
    return e;
}

TEST(LoggerEntry, BinaryLayout)
{
    Bytes b = logger_entry_bytes(entry("TOVAK", "hello"));
    const size_t payload = 1 + 6 + 6;
    ASSERT_EQ(LOGGER_ENTRY_HEADER + payload, b.size());
    EXPECT_EQ(payload, get_u16(&b[0]));
    EXPECT_EQ(0, get_u16(&b[2]));
    EXPECT_EQ(4321u, get_u32(&b[4]));
    EXPECT_EQ(4322u, get_u32(&b[8]));
    EXPECT_EQ(1700000000u, get_u32(&b[12]));
    EXPECT_EQ(123456789u, get_u32(&b[16]));
    EXPECT_EQ(3, b[20]);
    EXPECT_EQ(std::string("TOVAK\0hello\0", 12), std::string(b.begin() + 21, b.end()));
}

TEST(LoggerEntry, LongMessagesAreCutToOnePipeWrite)
{
    Bytes b = logger_entry_bytes(entry("T", std::string(10000, 'x')));
    EXPECT_EQ(size_t(LOGGER_ENTRY_MAX_LEN), b.size());
    EXPECT_EQ(b.size() - LOGGER_ENTRY_HEADER, get_u16(&b[0]));
    EXPECT_EQ(0, b.back()) << "the message keeps its NUL";
    Bytes long_tag = logger_entry_bytes(entry(std::string(5000, 't'), "m"));
    EXPECT_LE(long_tag.size(), size_t(LOGGER_ENTRY_MAX_LEN));
    EXPECT_EQ(0, long_tag.back());
}

TEST(LoggerText, ThreadtimeFormat)
{
    std::string line = threadtime_text(entry("TAMBOUR_TOVAK", "tovak daemon initialized = 0\n"));
    EXPECT_TRUE(std::regex_match(line, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d\.123  4321  4322 D TAMBOUR_TOVAK: tovak daemon initialized = 0\n)")))
        << line;
    // Every line of a message gets the prefix.
    std::string multi = threadtime_text(entry("T", "one\ntwo"));
    EXPECT_TRUE(std::regex_match(multi, std::regex(R"([^\n]+ D T       : one\n[^\n]+ D T       : two\n)"))) << multi;
}

TEST(LoggerDatagram, RoundTripAndMalformedInput)
{
    LogEntry e = entry("TOVAK", "msg with spaces");
    e.tid &= 0xFFFF;
    Bytes d = make_logdw(LOG_ID_RADIO, e);
    ASSERT_EQ(size_t(SIM_LOGDW_HEADER) + 1 + 6 + 16, d.size());
    LogEntry back;
    int buffer = -1;
    ASSERT_TRUE(parse_logdw(d.data(), d.size(), 77, &back, &buffer));
    EXPECT_EQ(LOG_ID_RADIO, buffer);
    e.pid = 77; // from the socket, not the datagram
    EXPECT_EQ(std::tie(e.pid, e.tid, e.sec, e.nsec, e.prio, e.tag, e.msg),
              std::tie(back.pid, back.tid, back.sec, back.nsec, back.prio, back.tag, back.msg));

    Bytes no_msg_nul(d.begin(), d.end() - 1);
    ASSERT_TRUE(parse_logdw(no_msg_nul.data(), no_msg_nul.size(), 1, &back, &buffer));
    EXPECT_EQ(e.msg, back.msg);

    Bytes bad_buffer = d;
    bad_buffer[0] = 9;
    Bytes bad_nsec = d;
    bad_nsec[10] = 0xFF;
    Bytes no_tag_end(d.begin(), d.begin() + SIM_LOGDW_HEADER + 3);
    for (const Bytes& bad : { bad_buffer, bad_nsec, no_tag_end, Bytes(d.begin(), d.begin() + 5) })
        EXPECT_FALSE(parse_logdw(bad.data(), bad.size(), 1, &back, &buffer));
}

TEST(LogQueue, KeepsTheNewestWithinItsBound)
{
    LogQueue q(100);
    for (int i = 0; i < 10; i++)
        q.push(Bytes(30, uint8_t(i)));
    EXPECT_EQ(3u, q.entries());
    EXPECT_EQ(90u, q.bytes());
    EXPECT_EQ(7u, q.dropped());
    EXPECT_EQ(10u, q.received());
    EXPECT_EQ(7, q.front()[0]);
    q.pop();
    EXPECT_EQ(1u, q.written());
    EXPECT_EQ(60u, q.bytes());
    EXPECT_EQ(8, q.front()[0]);
}

TEST(LogBuffers, NamesAndIds)
{
    for (int id = 0; id < LOG_ID_COUNT; id++)
        EXPECT_EQ(id, log_buffer_id(log_buffer_name(id)));
    EXPECT_EQ(-1, log_buffer_id("kernel"));
    EXPECT_EQ(LOG_ID_SYSTEM, log_buffer_id("system"));
}

} // namespace
