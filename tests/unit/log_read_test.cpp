// The log reader against hand-made frames and the simulator's own records:
// framing faults, every event and message form, message formatting, the
// configuration check, exact pcap bytes, capture files, and tovakctl's
// command line over files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include <nlohmann/json.hpp>

#include "hdlc.h"
#include "log_layouts.h"
#include "log_read.h"
#include "logger.h"
#include "modem_traffic.h"
#include "sim_device.h"
#include "tovakctl.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put(Bytes& b, uint64_t v, int width)
{
    for (int i = 0; i < width; i++)
        b.push_back(uint8_t(v >> (8 * i)));
}

// 2026-01-01 00:00:00 UTC as a modem stamp, plus ms.
uint64_t stamp(unsigned ms = 0)
{
    return diag_timestamp((1767225600ull * 1000 + ms) * 1000000ull);
}

Bytes log_packet(uint16_t code, const Bytes& body, uint64_t ts = stamp())
{
    Bytes p = { 0x10, 0 };
    put(p, 12 + body.size(), 2);
    put(p, 12 + body.size(), 2);
    put(p, code, 2);
    put(p, ts, 8);
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

Bytes message(uint16_t ssid, uint32_t mask, const std::vector<uint32_t>& args, const std::string& fmt,
              const std::string& file = "m.c")
{
    Bytes p = { 0x79, 0, uint8_t(args.size()), 0 };
    put(p, stamp(), 8);
    put(p, 42, 2);
    put(p, ssid, 2);
    put(p, mask, 4);
    for (uint32_t a : args)
        put(p, a, 4);
    p.insert(p.end(), fmt.begin(), fmt.end());
    p.push_back(0);
    p.insert(p.end(), file.begin(), file.end());
    p.push_back(0);
    return p;
}

Bytes framed(const std::vector<Bytes>& pkts)
{
    Bytes out;
    for (const Bytes& p : pkts)
        hdlc_frame_append(out, p.data(), p.size());
    return out;
}

std::vector<LrRecord> read_all(const Bytes& data, size_t piece = SIZE_MAX)
{
    std::vector<LrRecord> out;
    LrDiagReader r([&](const LrRecord& rec) {
        out.push_back(rec);
        out.back().body = nullptr; // it lives only during the call
    });
    for (size_t at = 0; at < data.size(); at += piece)
        r.feed(data.data() + at, std::min(piece, data.size() - at));
    r.finish();
    return out;
}

std::string summary_line(const LrRecord& r)
{
    std::ostringstream s;
    s << lr_kind_name(r.kind) << " " << r.code << " " << r.event_id << " " << r.ssid << " " << r.body_len << " "
      << r.offset << " " << r.text << " " << r.problem;
    return s.str();
}

TEST(LogReadFrames, BadFramesAreShownAndTheReadingGoesOn)
{
    const Bytes good = log_packet(0xB0C0, { 1, 2, 3 });
    Bytes data = framed({ good });
    const size_t first = data.size();
    hdlc_frame_append(data, good.data(), good.size(), 0x0101); // a noisy line
    Bytes shortlen = good;
    shortlen[2]--; // the outer length disagrees
    hdlc_frame_append(data, shortlen.data(), shortlen.size());
    data.insert(data.end(), { 0x7E, 0x7E, 0x41, 0x7E }); // empty frames, then one byte
    hdlc_frame_append(data, good.data(), good.size());
    data.insert(data.end(), { 0x10, 0x7D }); // cut inside an escape

    std::vector<LrRecord> recs = read_all(data);
    ASSERT_EQ(6u, recs.size());
    EXPECT_EQ(LrKind::log, recs[0].kind);
    EXPECT_EQ(0xB0C0, recs[0].code);
    EXPECT_EQ(3u, recs[0].body_len);
    struct Want {
        LrKind kind;
        const char* problem;
    };
    const Want want[] = { { LrKind::log, "" },
                          { LrKind::bad, "bad checksum" },
                          { LrKind::bad, "log packet: bad length" },
                          { LrKind::bad, "frame too short for a checksum" },
                          { LrKind::log, "" },
                          { LrKind::bad, "runs past the end of the file" } };
    for (size_t i = 0; i < 6; i++) {
        EXPECT_EQ(want[i].kind, recs[i].kind) << i;
        EXPECT_EQ(want[i].problem, recs[i].problem) << i;
    }
    EXPECT_EQ(first, recs[1].offset);
}

TEST(LogReadFrames, AnyPiecesGiveTheSameRecords)
{
    // The simulator's own traffic for a few items of every kind.
    TrafficSource src;
    src.set_items({ { ItemKind::log, 0xB0C0, 0, 10 },
                    { ItemKind::log, 0x713F, 0, 10 },
                    { ItemKind::event, 1606, 0, 10 },
                    { ItemKind::event, 1611, 0, 10 },
                    { ItemKind::event, 1499, 0, 10 },
                    { ItemKind::message, 5, 3, 10 },
                    { ItemKind::dpl, 19, 0, 10 } });
    FrameBuffer buf;
    src.produce(1, -1, 1767225600ull * 1000000000ull, buf, 1 << 20);
    const Bytes data = buf.take();
    std::vector<std::string> whole;
    for (const LrRecord& r : read_all(data))
        whole.push_back(summary_line(r));
    ASSERT_EQ(src.produced(), whole.size());
    for (const std::string& w : whole)
        EXPECT_EQ(std::string::npos, w.find("bad")) << w;
    for (size_t piece : { size_t(1), size_t(2), size_t(7), size_t(64) }) {
        std::vector<std::string> parts;
        for (const LrRecord& r : read_all(data, piece))
            parts.push_back(summary_line(r));
        EXPECT_EQ(whole, parts) << piece;
    }
}

TEST(LogReadFrames, EveryEventForm)
{
    // One report: no payload, one byte, two bytes, a length byte, then an
    // event with a truncated stamp (bits 16-31 only).
    const uint64_t ts = stamp(5000);
    Bytes body;
    put(body, 1499, 2);
    put(body, ts, 8);
    put(body, 1606 | 1 << 13, 2);
    put(body, ts, 8);
    body.push_back(0xAA);
    put(body, 1609 | 2 << 13, 2);
    put(body, ts, 8);
    put(body, 0x8104, 2);
    put(body, 1611 | 3 << 13, 2);
    put(body, ts, 8);
    body.insert(body.end(), { 3, 1, 2, 3 });
    put(body, 1685 | 0x8000, 2);
    put(body, 0xBEEF, 2);
    Bytes report = { 0x60 };
    put(report, body.size(), 2);
    report.insert(report.end(), body.begin(), body.end());

    const std::vector<LrRecord> recs = read_all(framed({ report }));
    ASSERT_EQ(5u, recs.size());
    const uint16_t ids[] = { 1499, 1606, 1609, 1611, 1685 };
    const size_t lens[] = { 0, 1, 2, 3, 0 };
    for (size_t i = 0; i < 5; i++) {
        EXPECT_EQ(LrKind::event, recs[i].kind) << i;
        EXPECT_EQ(ids[i], recs[i].event_id) << i;
        EXPECT_EQ(lens[i], recs[i].body_len) << i;
    }
    EXPECT_EQ(ts, recs[0].stamp);
    EXPECT_EQ((ts & ~uint64_t(0xFFFF0000)) | uint64_t(0xBEEF) << 16, recs[4].stamp);

    // Each cut of the report's last event is caught, never read past; a cut
    // of all of it leaves four whole events.
    for (size_t cut = 1; cut <= 4; cut++) {
        Bytes r = report;
        r.resize(r.size() - cut);
        r[1] = uint8_t(r.size() - 3);
        r[2] = uint8_t((r.size() - 3) >> 8);
        const std::vector<LrRecord> got = read_all(framed({ r }));
        ASSERT_EQ(cut < 4 ? 5u : 4u, got.size()) << cut;
        EXPECT_EQ(cut < 4 ? LrKind::bad : LrKind::event, got.back().kind) << cut;
        EXPECT_EQ(cut < 4 ? "event runs past its report" : "", got.back().problem) << cut;
    }
}

TEST(LogReadMessages, FormatsAndRefusals)
{
    struct Case {
        const char* fmt;
        std::vector<uint32_t> args;
        std::string text;
        const char* problem;
    };
    // clang-format off
    const Case cases[] = {
        { "rsrp %d dBm, cell %u",  { uint32_t(-95), 37 },      "rsrp -95 dBm, cell 37", "" },
        { "%x|%X|%08x|%o|%c|%%",   { 255, 255, 0xBEEF, 8, 'A' }, "ff|FF|0000beef|10|A|%", "" },
        { "[%5d][%-4u][%.3d]",     { 7, 9, 5 },                "[    7][9   ][005]", "" },
        { "%lld and %llu",         { 0xFFFFFFFE, 0xFFFFFFFF, 5, 1 }, "-2 and 4294967301", "" },
        { "%p",                    { 0x1234 },                 "0x00001234", "" },
        { "%d %d %d",              { 1 },                      "1 %d %d", "format asks for 2 more arguments than the message carries" },
        { "name %s here",          { 0x1000 },                 "name %s here", "%s: a string of the modem's memory, not in the log" },
        { "%n%d",                  { 0, 3 },                   "%n3", "%n: not done" },
        { "%*d|",                  { 1000000, 1 },             std::string(63, ' ') + "1|", "" },
        { "half %",                {},                         "half %", "unknown conversion" },
        { "%f",                    { 1 },                      "%f", "unknown conversion" },
    };
    // clang-format on
    for (const Case& c : cases) {
        std::string problem = "stale";
        EXPECT_EQ(c.text, lr_format_message(c.fmt, strlen(c.fmt), c.args.data(), c.args.size(), &problem)) << c.fmt;
        EXPECT_EQ(c.problem, problem) << c.fmt;
    }
}

TEST(LogReadMessages, FieldsAndCutMessages)
{
    const Bytes m = message(3006, 1u << 4, { 12 }, "tx %u", "rrc.c");
    std::vector<LrRecord> r = read_all(framed({ m }));
    ASSERT_EQ(1u, r.size());
    EXPECT_EQ(LrKind::message, r[0].kind);
    EXPECT_EQ(3006, r[0].ssid);
    EXPECT_EQ(16u, r[0].level_mask);
    EXPECT_EQ(42, r[0].line);
    EXPECT_EQ("rrc.c", r[0].file);
    EXPECT_EQ("tx 12", r[0].text);

    // Cut anywhere: never read past the packet.
    for (size_t len = 1; len < m.size(); len++) {
        const Bytes cut(m.begin(), m.begin() + long(len));
        r = read_all(framed({ cut }));
        ASSERT_EQ(1u, r.size()) << len;
        std::string want = "no file name";
        if (len < 20)
            want = "message: shorter than its header";
        else if (len < 24)
            want = "message: arguments run past the packet";
        if (len < m.size() - 6) { // not just the file name cut
            EXPECT_NE(std::string::npos, r[0].problem.find(want)) << len << " " << r[0].problem;
        }
    }
    // Unknown commands are other responses.
    r = read_all(framed({ { 0x7D, 5, 0, 0 } }));
    ASSERT_EQ(1u, r.size());
    EXPECT_EQ(LrKind::other, r[0].kind);
    EXPECT_EQ(0x7D, r[0].cmd);
    EXPECT_EQ(3u, r[0].body_len);
}

TEST(LogReadConfig, TheFactoryFileAndTheDaemonsNumberRules)
{
    LrConfig cfg;
    ASSERT_TRUE(lr_parse_config(read_file(TOVAK_SOURCE_DIR "/etc/dm.cfg"), &cfg));
    EXPECT_EQ(14u, cfg.events.size());
    EXPECT_TRUE(cfg.events.count(1498) && cfg.events.count(1972));
    EXPECT_EQ(16u, cfg.codes.size());
    EXPECT_TRUE(cfg.codes.count(0x412F) && cfg.codes.count(0xB16A));
    EXPECT_EQ(14u, cfg.messages.size());
    EXPECT_TRUE(cfg.messages.count({ 3010, 4 }));
    EXPECT_FALSE(cfg.dpl_on);
    EXPECT_EQ((std::set<uint16_t>{ 1, 15, 19 }), cfg.ifaces);

    // Lines joined with nothing, '#' comments dropped, "on" exactly: as the daemon reads them.
    ASSERT_TRUE(lr_parse_config("<EventIDs>0x12,\t00007</EventIDs><LogCodes>12 b061\n0c0 0x0X10\n# b0c0\n</LogCodes>"
                                "<MessageLevels>5/3 nolevel 6/40 7/31 # 8/1\n9/\n1</MessageLevels>"
                                "<DplState> on </DplState><IfIDs>300</IfIDs>",
                                &cfg));
    EXPECT_EQ((std::set<uint16_t>{ 0, 7 }), cfg.events);
    EXPECT_EQ((std::set<uint16_t>{ 0, 0x12, 0xFFFF }), cfg.codes);
    EXPECT_EQ((std::set<std::pair<uint16_t, uint8_t>>{ { 5, 3 }, { 7, 31 }, { 9, 1 } }), cfg.messages);
    EXPECT_FALSE(cfg.dpl_on);
    EXPECT_EQ((std::set<uint16_t>{ 44 }), cfg.ifaces) << "the modem takes the low byte";
    EXPECT_FALSE(lr_parse_config("not a configuration", &cfg));
}

TEST(LogReadConfig, MissingAndUnconfiguredItems)
{
    LrConfig cfg;
    ASSERT_TRUE(lr_parse_config("<EventIDs>1606, 1607</EventIDs><LogCodes>b0c0, b0e2</LogCodes>"
                                "<MessageLevels>5/3, 5/4</MessageLevels><DplState>on</DplState><IfIDs>1, 19</IfIDs>",
                                &cfg));
    Bytes dpl;
    dpl_body_append(19, false, 1, { 0x45, 0 }, dpl);
    Bytes dpl_other;
    dpl_body_append(2, false, 1, { 0x45, 0 }, dpl_other);
    Bytes ev = { 0x60 };
    put(ev, 10, 2);
    put(ev, 1606, 2);
    put(ev, stamp(), 8);
    LrSummary s;
    const Bytes data =
        framed({ log_packet(0xB0C0, { 1 }), log_packet(0xB061, { 1 }), ev, message(5, 1u << 3 | 1u << 9, {}, "x"),
                 log_packet(0x11EB, dpl), log_packet(0x11EB, dpl_other) });
    LrDiagReader reader([&](const LrRecord& r) { s.add(r); });
    reader.feed(data.data(), data.size());
    std::vector<std::string> missing, extra;
    const LrCheck c = lr_check(s, cfg);
    for (const LrItem& i : c.missing)
        missing.push_back(lr_item_text(i));
    for (const LrItem& i : c.unconfigured)
        extra.push_back(lr_item_text(i));
    EXPECT_EQ((std::vector<std::string>{ "log code 0xB0E2 (LTE NAS ESM plain message, incoming)",
                                         "event 1607 (LTE RRC out of service)", "message SSID 5 level 4",
                                         "DPL interface 1" }),
              missing);
    // The DPL records' own code is not a log code to configure.
    EXPECT_EQ((std::vector<std::string>{ "log code 0xB061 (LTE MAC random access trigger)", "message SSID 5 level 9",
                                         "DPL interface 2" }),
              extra);
    EXPECT_EQ(6u, s.records);
    EXPECT_EQ(stamp(), s.first);
}

TEST(LogReadPcap, ExactBytesOfEachEncapsulation)
{
    TempDir dir;
    const std::string path = dir.path() + "/x.pcap";
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    LrPcapWriter w;
    ASSERT_TRUE(w.open(f));
    // An RRC message of the UL-DCCH (PDU 8) on EARFCN 6300, version 15.
    Bytes rrc = { 15, 9, 0, 1, 0x25, 0, 0x9C, 0x18, 0, 0, 0, 0, 8, 0, 0, 0, 0, 2, 0, 0x48, 0x02 };
    Bytes nas = { 1, 9, 5, 0, 0x07, 0x4A };
    Bytes dpl;
    dpl_body_append(1, true, 3, { 0x60, 0, 0, 0 }, dpl);
    Bytes not_ip;
    dpl_body_append(1, true, 3, { 0x20, 0 }, not_ip);
    Bytes rrc_pdu9 = rrc, rrc_badlen = rrc;
    rrc_pdu9[12] = 9;
    rrc_badlen[17] = 3;
    const uint64_t ts = stamp(1500);
    int exported = 0;
    for (const Bytes& p : { log_packet(0xB0C0, rrc, ts), log_packet(0xB0ED, nas, ts), log_packet(0x11EB, dpl, ts),
                            log_packet(0x11EB, not_ip, ts), log_packet(0xB0C0, rrc_pdu9, ts),
                            log_packet(0xB0C0, rrc_badlen, ts), log_packet(0xB0E2, { 1, 9, 5, 0 }, ts) }) {
        const Bytes data = framed({ p });
        LrDiagReader r([&](const LrRecord& rec) { exported += w.add(rec) ? 1 : 0; });
        r.feed(data.data(), data.size());
    }
    fclose(f);
    EXPECT_EQ(3, exported);
    EXPECT_EQ(3u, w.written());

    const std::string got = read_file(path);
    auto hex = [](const std::string& s, size_t at, size_t n) {
        std::string out;
        char b[4];
        for (size_t i = at; i < at + n && i < s.size(); i++) {
            snprintf(b, sizeof b, "%02x", uint8_t(s[i]));
            out += b;
        }
        return out;
    };
    // pcap 2.4, raw IP; 2026-01-01 00:00:01.500 UTC.
    EXPECT_EQ("d4c3b2a10200040000000000000000000000040065000000"
              "01b9556920a10700",
              hex(got, 0, 32));
    // IPv4 127.0.0.1 to itself, UDP 4729 both ways, GSMTAP v2 LTE RRC,
    // uplink EARFCN 6300, subtype 3 (UL-DCCH), then the message.
    EXPECT_EQ("2e0000002e000000"
              "4500002e0000000040117cbd7f0000017f000001"
              "1279127900"
              "1a0000"
              "02040d00589c00000000000003000000"
              "4802",
              hex(got, 32, 8 + 46));
    size_t at = 32 + 8 + 46;
    // NAS: type 0x12, uplink flag, plain subtype.
    EXPECT_EQ("02041200400000000000000000000000"
              "074a",
              hex(got, at + 16 + 28, 18));
    at += 16 + 46;
    // DPL: the IP packet alone.
    EXPECT_EQ("040000000400000060000000", hex(got, at + 8, 12));
    EXPECT_EQ(at + 16 + 4, got.size());
}

TEST(LogReadCapture, EntriesPrintAsLogcatDoes)
{
    setenv("TZ", "UTC", 1);
    tzset();
    LogEntry a;
    a.pid = 1200;
    a.tid = 1234;
    a.sec = 1767225600;
    a.nsec = 987654321;
    a.prio = 6;
    a.tag = "RILJ";
    a.msg = "two\nlines\n";
    LogEntry b = a;
    b.prio = 3;
    b.tag = "a-tag-longer-than-eight";
    b.msg = "x";
    Bytes file = logger_entry_bytes(a);
    const Bytes more = logger_entry_bytes(b);
    file.insert(file.end(), more.begin(), more.end());
    ASSERT_TRUE(lr_looks_like_capture(file.data(), file.size()));

    for (size_t piece : { size_t(1), size_t(5), file.size() }) {
        std::string text;
        LrCaptureReader r([&](const LrLogEntry& e) { text += lr_threadtime(e) + e.problem; }, false);
        for (size_t at = 0; at < file.size(); at += piece)
            r.feed(file.data() + at, std::min(piece, file.size() - at));
        r.finish();
        EXPECT_EQ(threadtime_text(a) + threadtime_text(b), text) << piece;
    }

    // Cut short, then garbage: both said, never read past.
    std::vector<std::string> problems;
    LrCaptureReader cut([&](const LrLogEntry& e) { problems.push_back(e.problem); }, false);
    cut.feed(file.data(), file.size() - 1);
    cut.finish();
    EXPECT_EQ((std::vector<std::string>{ "", "entry runs past the end of the file" }), problems);
    problems.clear();
    LrCaptureReader junk([&](const LrLogEntry& e) { problems.push_back(e.problem); }, false);
    const Bytes bad = { 0xFF, 0xFF, 0, 0, 1, 2, 3 };
    junk.feed(file.data(), logger_entry_bytes(a).size());
    junk.feed(bad.data(), bad.size());
    junk.feed(file.data(), file.size());
    junk.finish();
    EXPECT_EQ((std::vector<std::string>{ "", "not a logger entry; the rest of the file is skipped" }), problems);

    // A modem log is not taken for a capture file.
    const Bytes modem = framed({ log_packet(0xB0C0, { 1, 2, 3 }) });
    EXPECT_FALSE(lr_looks_like_capture(modem.data(), modem.size()));
}

TEST(LogReadCapture, BinaryEventsAreDecoded)
{
    struct Case {
        Bytes values;
        const char* text;
        size_t used;
    };
    const float f = 2.5f;
    uint32_t fb;
    memcpy(&fb, &f, 4);
    Bytes flt = { 4 };
    put(flt, fb, 4);
    // clang-format off
    const Case cases[] = {
        { { 0, 0xFE, 0xFF, 0xFF, 0xFF },                        "-2",       5 },
        { { 1, 1, 0, 0, 0, 1, 0, 0, 0 },                        "4294967297", 9 },
        { { 2, 3, 0, 0, 0, 'a', 'b', 'c' },                     "abc",      8 },
        { { 3, 2, 0, 1, 0, 0, 0, 2, 1, 0, 0, 0, 'z' },          "[1,z]",    13 },
        { flt,                                                   "2.500000", 5 },
        { { 2, 9, 0, 0, 0, 'a' },                               " [undecodable from byte 5]", 5 },
        { { 3, 3, 0, 1, 0, 0, 0 },                              "[1, [undecodable from byte 7]", 7 },
        { { 9 },                                                 " [undecodable from byte 1]", 1 },
    };
    // clang-format on
    for (const Case& c : cases) {
        size_t used = 0;
        EXPECT_EQ(c.text, lr_event_values(c.values.data(), c.values.size(), &used)) << c.text;
        EXPECT_EQ(c.used, used) << c.text;
    }
    EXPECT_EQ((std::map<uint32_t, std::string>{ { 2718, "e" }, { 72451, "sim_signal_strength" } }),
              lr_event_tags(
                  "# comment\n2718 e\n72451 sim_signal_strength (rsrp|5)\nname 12\n12x y\n99999999999 big\n"));

    // Lists nested past any sense stop.
    Bytes deep(40, 3);
    for (size_t i = 1; i < deep.size(); i += 2)
        deep[i] = 1;
    EXPECT_NE(std::string::npos, lr_event_values(deep.data(), deep.size(), nullptr).find("undecodable"));
}

class LogReadCtl : public ::testing::Test {
protected:
    int run(std::vector<std::string> args, std::string* out)
    {
        std::ostringstream o, e;
        args.insert(args.begin(), "log-read");
        int rc = tovakctl_main(args, o, e, -1);
        *out = o.str() + e.str();
        return rc;
    }
    std::string file(const std::string& name, const Bytes& data)
    {
        std::string path = dir.path() + "/" + name;
        EXPECT_TRUE(write_file(path, std::string(data.begin(), data.end())));
        return path;
    }
    TempDir dir;
};

TEST_F(LogReadCtl, FiltersListAndJsonLines)
{
    Bytes ev = { 0x60 };
    put(ev, 11, 2);
    put(ev, 1606 | 1 << 13, 2);
    put(ev, stamp(2000), 8);
    ev.push_back(4);
    const std::string log =
        file("a.qmdl", framed({ log_packet(0xB0C0, { 1 }, stamp(1000)), ev, message(5, 8, { 7 }, "n=%d"),
                                log_packet(0x412F, { 2 }, stamp(3000)) }));
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> kinds; // of the records listed, in order
    };
    const Case cases[] = {
        { {}, { "log", "event", "message", "log" } },
        { { "--code", "b0c0,412f" }, { "log", "log" } },
        { { "--code", "b0c0", "--event", "1606" }, { "log", "event" } },
        { { "--ssid", "5" }, { "message" } },
        { { "--kind", "event,message" }, { "event", "message" } },
        { { "--since", "2026-01-01 00:00:01.500", "--until", "2026-01-01T00:00:02" }, { "event" } },
        { { "--since", "1767225602.5" }, { "log" } },
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.end(), { "--json", log });
        std::string out;
        ASSERT_EQ(0, run(args, &out)) << out;
        std::vector<std::string> kinds;
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);)
            kinds.push_back(nlohmann::json::parse(line)["kind"]);
        EXPECT_EQ(c.kinds, kinds) << out;
    }
    std::string out;
    ASSERT_EQ(0, run({ log }, &out));
    EXPECT_NE(std::string::npos, out.find("2026-01-01 00:00:01.000  log     0xB0C0  equip 11  len    1  LTE RRC"))
        << out;
    EXPECT_NE(std::string::npos, out.find("event   1606  LTE RRC state change  payload 04")) << out;
    EXPECT_NE(std::string::npos, out.find("message SSID 5 level 3  m.c:42  n=7")) << out;
}

TEST_F(LogReadCtl, SummaryExitStatusGatesOnMissingItemsAndBadFrames)
{
    const std::string cfg = dir.path() + "/dm.cfg";
    ASSERT_TRUE(write_file(cfg, "<EventIDs></EventIDs><LogCodes>b0c0</LogCodes>"));
    const Bytes pkt = log_packet(0xB0C0, { 1 });
    const std::string good = file("good.qmdl", framed({ pkt }));
    Bytes noisy = framed({ pkt });
    hdlc_frame_append(noisy, pkt.data(), pkt.size(), 1);
    const std::string bad = file("bad.qmdl", noisy);
    const std::string other = file("other.qmdl", framed({ log_packet(0xB0E2, { 1 }) }));
    LogEntry ev; // tag 72451, no name for it here, values [1]
    ev.binary = { 0x03, 0x1B, 0x01, 0x00, 3, 1, 0, 1, 0, 0, 0 };
    struct Case {
        std::vector<std::string> args;
        int rc;
        const char* says;
    };
    const Case cases[] = {
        { { "--summary", "--config", cfg, good }, 0, "configured, never seen: none" },
        { { "--summary", "--config", cfg, bad }, 1, "2 records, 1 bad" },
        { { "--summary", "--config", cfg, other }, 1, "never seen:\n    log code 0xB0C0" },
        { { "--summary", "--config", cfg, good, other }, 0, "seen, not configured:\n    log code 0xB0E2" },
        { { "--summary", good }, 0, "not checked: no configuration" },
        { { "--summary", "--config", dir.path() + "/none", good }, 1, "is not a readable dm.cfg" },
        { { good, dir.path() + "/none" }, 1, "cannot open" },
        { { file("text", Bytes(100, 'a')) }, 1, "is not a modem log or a capture file" },
        { { file("adbevents_1.log", logger_entry_bytes(ev)) }, 0, " I [72451] : [1]\n" },
        { {}, 2, "no file given" },
        { { "--code", "zz", good }, 2, "bad --code 'zz'" },
        { { "--event", "70000", good }, 2, "bad --event '70000'" },
        { { "--kind", "log,nope", good }, 2, "bad --kind 'nope'" },
        { { "--since", "yesterday", good }, 2, "bad --since 'yesterday'" },
        { { "--frob", "1", good }, 2, "unknown option --frob" },
        { { "--", "--summary" }, 1, "cannot open --summary" },
        { { good, "--pcap" }, 2, "--pcap needs a value" },
        { { "--pcap", dir.path() + "/no/such/dir.pcap", good }, 1, "cannot write" },
    };
    for (const Case& c : cases) {
        std::string out;
        EXPECT_EQ(c.rc, run(c.args, &out)) << c.says << "\n" << out;
        EXPECT_NE(std::string::npos, out.find(c.says)) << c.says << "\n" << out;
    }
}

} // namespace
