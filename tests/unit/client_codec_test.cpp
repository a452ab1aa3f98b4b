// Request builders and reply decoders of the client library, as byte
// fixtures: each row pairs exact bytes with what they must mean.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "protocol/tovak_cmd_ids.h"
#include "fake_daemon.h"
#include "tovak_client.h"
#include "tovak_cmd_codec.h"

namespace {

std::string payload_hex(const tovak_pkt& p)
{
    return tovak_hex(p.data, p.len > TOVAK_PKT_DATA_SIZE ? TOVAK_PKT_DATA_SIZE : p.len);
}

tovak_pkt frame(uint32_t len, const std::string& hex)
{
    tovak_pkt p = {};
    p.len = len;
    std::vector<uint8_t> b = hex_bytes(hex);
    std::copy(b.begin(), b.end(), p.data);
    return p;
}

struct BuildCase {
    const char* what;
    std::function<bool(tovak_pkt*)> build;
    uint32_t cmd;
    const char* payload; // hex
};

TEST(ClientRequests, BuildExactBytes)
{
    const std::string long_text(98, 'p');
    // clang-format off
    const BuildCase cases[] = {
        { "no fields",             [](tovak_pkt* r) { return tovak_req_plain(r, CMD_GET_EVENTS); },              CMD_GET_EVENTS, "" },
        { "u16 event id",          [](tovak_pkt* r) { return tovak_req_u16(r, CMD_ADD_EVENT, 1498); },           CMD_ADD_EVENT, "da05" },
        { "u16 top value",         [](tovak_pkt* r) { return tovak_req_u16(r, CMD_RM_LOG, 0xb061); },            CMD_RM_LOG, "61b0" },
        { "u32 little-endian",     [](tovak_pkt* r) { return tovak_req_u32(r, CMD_LOG_SIZE, 0x12345678); },      CMD_LOG_SIZE, "78563412" },
        { "i32 -1 as u32",         [](tovak_pkt* r) { return tovak_req_u32(r, CMD_LOG_SIZE, uint32_t(-1)); },    CMD_LOG_SIZE, "ffffffff" },
        { "u32 pair in order",     [](tovak_pkt* r) { return tovak_req_u32_pair(r, CMD_ADBLOG_SET_SIZE, 2, 500000); }, CMD_ADBLOG_SET_SIZE, "02000000" "20a10700" },
        { "add-msg: u16 then u32", [](tovak_pkt* r) { return tovak_req_add_msg(r, 5, 0x18); },                   CMD_ADD_MSG, "0500" "18000000" },
        { "add-msg: no padding",   [](tovak_pkt* r) { return tovak_req_add_msg(r, 0x1234, 0x00010001); },        CMD_ADD_MSG, "3412" "01000100" },
        { "text with its zero",    [](tovak_pkt* r) { return tovak_req_text(r, CMD_OUT_PATH, "/a/b", 99); },     CMD_OUT_PATH, "2f612f6200" },
        { "counted text",          [](tovak_pkt* r) { return tovak_req_counted_text(r, CMD_SYSTEM_COMMAND, "@@#ps -t", 198); }, CMD_SYSTEM_COMMAND, "0900" "4040237073202d7400" },
        { "counted empty text",    [](tovak_pkt* r) { return tovak_req_counted_text(r, CMD_SET_MSISDN, "", 18); }, CMD_SET_MSISDN, "0100" "00" },
        { "raw payload",           [](tovak_pkt* r) { return tovak_req_raw(r, 0x15, { 1, 2, 3 }); },             0x15, "010203" },
        { "raw empty",             [](tovak_pkt* r) { return tovak_req_raw(r, 0x59, {}); },                      0x59, "" },
    };
    // clang-format on
    for (const BuildCase& c : cases) {
        tovak_pkt req;
        memset(&req, 0xee, sizeof req);
        ASSERT_TRUE(c.build(&req)) << c.what;
        EXPECT_EQ(c.cmd, req.cmd) << c.what;
        EXPECT_EQ(c.payload, payload_hex(req)) << c.what;
        EXPECT_TRUE(tail_is_zero(req)) << c.what << ": bytes past len must not carry old data";
    }
    // Largest text each counted command takes: the count is the text and its zero.
    tovak_pkt req;
    ASSERT_TRUE(tovak_req_counted_text(&req, CMD_SET_CONFIG_FILE, long_text, TOVAK_CONFIG_NAME_MAX));
    EXPECT_EQ(101u, req.len);
    EXPECT_EQ(99, req.data[0] | req.data[1] << 8);
    EXPECT_EQ(0, req.data[100]);
}

TEST(ClientRequests, RefuseArgumentsThatDoNotFit)
{
    const std::string nul_inside("ab\0cd", 5);
    // clang-format off
    const BuildCase cases[] = {
        { "config name of 99",   [](tovak_pkt* r) { return tovak_req_counted_text(r, CMD_SET_CONFIG_FILE, std::string(99, 'p'), TOVAK_CONFIG_NAME_MAX); }, 0, "" },
        { "system text of 199",  [](tovak_pkt* r) { return tovak_req_counted_text(r, CMD_SYSTEM_COMMAND, std::string(199, 'x'), TOVAK_SYSTEM_TEXT_MAX); }, 0, "" },
        { "msisdn of 19",        [](tovak_pkt* r) { return tovak_req_counted_text(r, CMD_SET_MSISDN, std::string(19, '1'), TOVAK_MSISDN_MAX); }, 0, "" },
        { "out path of 100",     [](tovak_pkt* r) { return tovak_req_text(r, CMD_OUT_PATH, std::string(100, 'p'), TOVAK_OUT_PATH_MAX); }, 0, "" },
        { "zero byte in text",   [&](tovak_pkt* r) { return tovak_req_text(r, CMD_OUT_PATH, nul_inside, 99); }, 0, "" },
        { "zero byte counted",   [&](tovak_pkt* r) { return tovak_req_counted_text(r, CMD_SET_MSISDN, nul_inside, 18); }, 0, "" },
        { "raw past the frame",  [](tovak_pkt* r) { return tovak_req_raw(r, 0x13, std::vector<uint8_t>(5121, 1)); }, 0, "" },
    };
    // clang-format on
    for (const BuildCase& c : cases) {
        tovak_pkt req;
        EXPECT_FALSE(c.build(&req)) << c.what;
        EXPECT_EQ(0u, req.len) << c.what;
    }
    tovak_pkt req;
    EXPECT_TRUE(tovak_req_raw(&req, 0x13, std::vector<uint8_t>(5120, 1)));
    EXPECT_EQ(5120u, req.len);
}

using Decode = std::function<TovakShown(const tovak_pkt&, std::string*)>;

Decode plain(TovakShown (*decode)(const tovak_pkt&))
{
    return [decode](const tovak_pkt& p, std::string*) { return decode(p); };
}

// Decodes from two different starting values: an output the decoder left
// alone, or wrote only in part, shows as "-".
template <class T, class F> Decode out(F decode, T a, T b)
{
    return [=](const tovak_pkt& p, std::string* found) {
        T x = a, y = b;
        TovakShown s = decode(p, &x);
        decode(p, &y);
        *found = text(x) == text(y) ? text(x) : "-";
        return s;
    };
}

// 0, 1, 2, ... as u16, each followed by `after`: lists that fill the frame.
std::string counting(uint32_t n, const std::string& after = "")
{
    std::string hex;
    for (uint32_t i = 0; i < n; i++)
        hex += tovak_hex(reinterpret_cast<const uint8_t*>(&i), 2) + after;
    return hex;
}

// Each row decodes one reply and renders what it found; "-" when the
// decoder left its outputs alone.
struct DecodeCase {
    const char* what;
    uint32_t len;
    const char* payload;
    Decode decode;
    TovakVerdict verdict;
    const char* found;
};

using V = TovakVerdict;
using U16s = std::vector<uint16_t>;
using U32Pair = std::pair<uint32_t, uint32_t>;

TEST(ClientReplies, DecodeEveryShape)
{
    const Decode empty = plain(tovak_decode_empty), no_reply = plain(tovak_decode_no_reply), zero4 = plain(tovak_decode_zero4),
                 commit = plain(tovak_decode_capture_commit), status = plain(tovak_decode_status_i32);
    const Decode log_size = out(tovak_decode_log_size, int32_t(7), int32_t(8)), u32 = out(tovak_decode_u32, 7u, 8u),
                 flag = out(tovak_decode_flag, false, true), config_name = out(tovak_decode_config_name, std::string("7"), std::string("8"));
    const Decode pair = out([](const tovak_pkt& p, U32Pair* v) { return tovak_decode_u32_pair(p, &v->first, &v->second); }, U32Pair(7, 7), U32Pair(8, 8));
    const Decode ids = out(tovak_decode_u16_list, U16s{ 7 }, U16s{ 8 }), dpl_ids = out(tovak_decode_dpl_ids, U16s{ 7 }, U16s{ 8 });
    const Decode msgs = out(tovak_decode_msgs, std::vector<TovakMsgEntry>{ { 7, 7 } }, std::vector<TovakMsgEntry>{ { 8, 8 } });
    const Decode categories = out(tovak_decode_categories, std::vector<bool>{ true }, std::vector<bool>{ false });
    const Decode names = out(tovak_decode_category_names, std::vector<std::string>{ "7" }, std::vector<std::string>{ "8" });
    const Decode ifaces = out(tovak_decode_dpl_ifaces, std::vector<TovakDplIface>{ { 7, "7" } }, std::vector<TovakDplIface>{ { 8, "8" } });
    const std::string full_ids = counting(2560), full_msgs = counting(640, "000018000000"), full_dpl = "fe090000" + counting(2558);
    // clang-format off
    const DecodeCase cases[] = {
        // Length 0 on success, untouched on refusal.
        { "empty: done",                 0,    "",             empty,       V::done,       "" },
        { "empty: untouched",            5120, "",             empty,       V::refused,    "" },
        { "empty: stray length",         4,    "00000000",     empty,       V::unexpected, "" },
        // Never written: alike either way.
        { "no reply: untouched",         5120, "",             no_reply,    V::unknown,    "" },
        { "no reply: written after all", 0,    "",             no_reply,    V::unexpected, "" },
        { "no reply: past a frame",      5121, "",             no_reply,    V::unexpected, "" },
        // log-on and log-off.
        { "zero4: the only answer",      4,    "00000000",     zero4,       V::unknown,    "" },
        { "zero4: untouched",            5120, "",             zero4,       V::refused,    "" },
        { "zero4: not zero",             4,    "01000000",     zero4,       V::unexpected, "" },
        { "zero4: short",                0,    "",             zero4,       V::unexpected, "" },
        // capture-commit.
        { "commit: empty either way",    0,    "",             commit,      V::unknown,    "" },
        { "commit: gate closed",         5120, "",             commit,      V::refused,    "" },
        // out-path.
        { "status: 0",                   4,    "00000000",     status,      V::done,       "" },
        { "status: -1",                  4,    "ffffffff",     status,      V::refused,    "" },
        { "status: untouched",           5120, "",             status,      V::refused,    "" },
        { "status: neither 0 nor -1",    4,    "02000000",     status,      V::unexpected, "" },
        // log-size: the platform's size, or -1.
        { "log size: taken",             4,    "80f0fa02",     log_size,    V::done,       "50000000" },
        { "log size: platform says 0",   4,    "00000000",     log_size,    V::done,       "0" },
        { "log size: -1",                4,    "ffffffff",     log_size,    V::refused,    "-" },
        { "log size: untouched",         5120, "ffffffff",     log_size,    V::refused,    "-" },
        { "log size: 8 bytes",           8,    "0100000000000000", log_size, V::unexpected, "-" },
        // Single values.
        { "u32: value",                  4,    "80f0fa02",     u32,         V::done,       "50000000" },
        { "u32: untouched",              5120, "80f0fa02",     u32,         V::refused,    "-" },
        { "u32: short",                  2,    "8000",         u32,         V::unexpected, "-" },
        { "flag: on",                    4,    "01000000",     flag,        V::done,       "on" },
        { "flag: off",                   4,    "00000000",     flag,        V::done,       "off" },
        { "flag: 2 is no flag",          4,    "02000000",     flag,        V::unexpected, "-" },
        { "flag: untouched",             5120, "01000000",     flag,        V::refused,    "-" },
        { "pair: in order",              8,    "20a10700" "002d3101", pair, V::done,       "500000,20000000" },
        { "pair: untouched",             5120, "",             pair,        V::refused,    "-" },
        { "pair: half",                  4,    "20a10700",     pair,        V::unexpected, "-" },
        // Id lists: no count, ascending.
        { "ids: two",                    4,    "da05" "db05",  ids,         V::done,       "1498;1499;" },
        { "ids: empty list",             0,    "",             ids,         V::done,       "" },
        { "ids: odd length",             3,    "da05db",       ids,         V::unexpected, "-" },
        { "ids: descending",             4,    "db05" "da05",  ids,         V::unexpected, "-" },
        { "ids: repeated",               4,    "da05" "da05",  ids,         V::unexpected, "-" },
        { "ids: untouched stale",        5120, "da05",         ids,         V::refused,    "-" },
        { "ids: full list",              5120, full_ids.c_str(), ids,       V::unknown,    "2560 items" },
        // Message entries: u16 SSID, 2 bytes of padding, u32 mask.
        { "msgs: two, padding ignored",  16,   "0500" "abcd" "18000000" "1400" "0000" "ffff0000", msgs, V::done, "5/24;20/65535;" },
        { "msgs: empty",                 0,    "",             msgs,        V::done,       "" },
        { "msgs: mask above 16 bits",    8,    "0500" "0000" "00000100", msgs, V::unexpected, "-" },
        { "msgs: out of order",          16,   "1400" "0000" "01000000" "0500" "0000" "01000000", msgs, V::unexpected, "-" },
        { "msgs: not whole entries",     12,   "0500000018000000" "01000000", msgs, V::unexpected, "-" },
        { "msgs: untouched",             5120, "",             msgs,        V::refused,    "-" },
        { "msgs: full list",             5120, full_msgs.c_str(), msgs,     V::unknown,    "640 items" },
        // Configuration file name: u16 count, text, zero.
        { "config: default path",        17,   "0f00" "2f7364636172642f646d2e63666700", config_name, V::done, "/sdcard/dm.cfg" },
        { "config: untouched",           5120, "",             config_name, V::refused,    "-" },
        { "config: count too long",      5,    "0500" "61620000", config_name, V::unexpected, "-" },
        { "config: no zero",             4,    "0200" "6162",  config_name, V::unexpected, "-" },
        { "config: zero inside",         5,    "0300" "610062", config_name, V::unexpected, "-" },
        { "config: count 0",             2,    "0000",         config_name, V::unexpected, "-" },
        // Categories: u32 0 or 1 each.
        { "categories: four",            16,   "01000000" "01000000" "00000000" "01000000", categories, V::done, "on;on;off;on;" },
        { "categories: none",            0,    "",             categories,  V::done,       "" },
        { "categories: value 2",         4,    "02000000",     categories,  V::unexpected, "-" },
        { "categories: ragged",          6,    "010000000100", categories,  V::unexpected, "-" },
        { "categories: untouched",       5120, "",             categories,  V::refused,    "-" },
        // Category names, comma-separated, with the zero.
        { "names: four",                 25,   "6d61696e2c726164696f2c6576656e74732c73797374656d00", names, V::done, "main;radio;events;system;" },
        { "names: none",                 1,    "00",           names,       V::done,       "" },
        { "names: empty between commas", 4,    "612c2c00",     names,       V::done,       "a;;;" },
        { "names: no zero",              4,    "6d61696e",     names,       V::unexpected, "-" },
        { "names: nothing",              0,    "",             names,       V::unexpected, "-" },
        { "names: untouched",            5120, "",             names,       V::refused,    "-" },
        // DPL interfaces: count, then id, text length, text.
        { "ifaces: two",                 14,   "02000000" "01" "03" "727761" "0f" "03" "696d73", ifaces, V::done, "1=rwa;15=ims;" },
        { "ifaces: none",                4,    "00000000",     ifaces,      V::done,       "" },
        { "ifaces: empty description",   6,    "01000000" "1300", ifaces,   V::done,       "19=;" },
        { "ifaces: cut short",           9,    "02000000" "01" "03" "727761", ifaces, V::unexpected, "-" },
        { "ifaces: trailing bytes",      6,    "00000000" "0000", ifaces,   V::unexpected, "-" },
        { "ifaces: text overruns",       7,    "01000000" "01" "05" "72", ifaces, V::unexpected, "-" },
        { "ifaces: untouched",           5120, "",             ifaces,      V::refused,    "-" },
        // Configured DPL ids: count, then ids.
        { "dpl ids: three",              10,   "03000000" "0100" "0f00" "1300", dpl_ids, V::done, "1;15;19;" },
        { "dpl ids: none",               4,    "00000000",     dpl_ids,     V::done,       "" },
        { "dpl ids: count too big",      6,    "02000000" "0100", dpl_ids,  V::unexpected, "-" },
        { "dpl ids: huge count",         6,    "ffffffff" "0100", dpl_ids,  V::unexpected, "-" },
        { "dpl ids: no count",           0,    "",             dpl_ids,     V::unexpected, "-" },
        { "dpl ids: untouched",          5120, "",             dpl_ids,     V::refused,    "-" },
        { "dpl ids: full list",          5120, full_dpl.c_str(), dpl_ids,   V::unknown,    "2558 items" },
    };
    // clang-format on
    for (const DecodeCase& c : cases) {
        tovak_pkt rsp = frame(c.len, c.payload);
        std::string found;
        TovakShown shown = c.decode(rsp, &found);
        EXPECT_EQ(tovak_verdict_text(c.verdict), std::string(tovak_verdict_text(shown.verdict))) << c.what << ": " << shown.note;
        EXPECT_EQ(c.found, found) << c.what;
        EXPECT_EQ(shown.verdict == TovakVerdict::done, shown.note.empty()) << c.what << ": a note says why it is not done";
    }
}

TEST(ClientHex, RoundTripAndRejects)
{
    std::vector<uint8_t> out;
    ASSERT_TRUE(tovak_parse_hex("00 ff:7A 10", &out));
    EXPECT_EQ((std::vector<uint8_t>{ 0x00, 0xff, 0x7a, 0x10 }), out);
    EXPECT_EQ("00ff7a10", tovak_hex(out.data(), out.size()));
    ASSERT_TRUE(tovak_parse_hex("", &out));
    EXPECT_TRUE(out.empty());
    for (const char* bad : { "0", "abc", "0g", "0 0", "0x01", "12-34" }) {
        out = { 9 };
        EXPECT_FALSE(tovak_parse_hex(bad, &out)) << bad;
        EXPECT_EQ(std::vector<uint8_t>{ 9 }, out) << bad << ": left alone on failure";
    }
}

TEST(ClientRequests, SystemCommandBuilderTakesWhatAFrameHolds)
{
    std::vector<uint8_t> payload(TOVAK_PKT_DATA_SIZE);
    // Longer than the daemon takes, so that tests can see it refuse.
    EXPECT_EQ(5120u, tovak_build_system_command(std::string(5117, 'x'), payload.data(), 5120));
    EXPECT_EQ(0xfe, payload[0]);
    EXPECT_EQ(0x13, payload[1]);
    EXPECT_EQ(0, payload[5119]);
    EXPECT_EQ(0u, tovak_build_system_command(std::string(5118, 'x'), payload.data(), 5120));
    EXPECT_EQ(0u, tovak_build_system_command("@@#ps", payload.data(), 7)) << "room for 8 bytes needed";
    EXPECT_EQ(8u, tovak_build_system_command("@@#ps", payload.data(), 8));
}

} // namespace
