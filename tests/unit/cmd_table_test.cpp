// Every command's gate and refusal, checked in one table against the
// dispatcher: a refused command runs nothing, logs one ERR line and leaves
// the reply as the table says.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <iterator>
#include <set>
#include <string>

#include "daemon/cmd_table.h"
#include "fd_output.h"
#include "protocol/tovak_cmd_ids.h"
#include "protocol/tovak_pkt.h"

namespace {

enum Gate { T, A, NONE };
// What a refusal leaves: the reply untouched, or 4 bytes of 0 or of 0xff.
enum Answer { KEEP, ZERO, MINUS_ONE };

struct Row {
    uint32_t id;
    Gate gate;
    Answer refused = KEEP;
};

// clang-format off
const Row ROWS[] = {
    { 0x00, T, ZERO }, { 0x01, T, ZERO }, { 0x03, T, MINUS_ONE }, { 0x04, T, MINUS_ONE }, { 0x05, T }, { 0x06, T },
    { 0x07, T }, { 0x08, T }, { 0x09, T }, { 0x0a, T }, { 0x0b, T }, { 0x0c, T }, { 0x0d, T }, { 0x0e, T },
    { 0x0f, T }, { 0x10, T }, { 0x11, T }, { 0x12, T }, { 0x13, T }, { 0x14, T }, { 0x2f, A }, { 0x30, A },
    { 0x32, A }, { 0x33, A }, { 0x36, A }, { 0x37, A }, { 0x38, A }, { 0x39, A }, { 0x3a, NONE }, { 0x3b, A },
    { 0x3c, A }, { 0x3d, T }, { 0x46, T }, { 0x47, T }, { 0x48, T }, { 0x49, T }, { 0x50, T }, { 0x51, T },
    { 0x52, T }, { 0x53, T }, { 0x54, T }, { 0x55, T }, { 0x02, NONE },
};
// clang-format on

TEST(CommandTable, OneEntryPerIdInOrderAndNothingElseFound)
{
    ASSERT_EQ(std::size(ROWS), cmd_table_size);
    std::set<uint32_t> ids;
    for (size_t i = 0; i < cmd_table_size; i++) {
        EXPECT_EQ(ROWS[i].id, cmd_table[i].id) << i;
        EXPECT_EQ(&cmd_table[i], find_cmd(ROWS[i].id)) << ROWS[i].id;
        EXPECT_EQ(cmd_table[i].handler, find_cmd_handler(ROWS[i].id)) << ROWS[i].id;
        ids.insert(ROWS[i].id);
    }
    for (uint32_t id = 0; id < 300; id++) {
        EXPECT_TRUE(ids.count(id) || find_cmd(id) == nullptr) << id;
    }
    EXPECT_EQ(nullptr, find_cmd(0xffffffff));
}

// Before start-up, with one flag set, and without a reply area: a refused
// command returns 0, logs exactly one ERR line and nothing of its own, and
// answers only as its row says.
TEST(CommandTable, GatedCommandsRefuseTheTablesWay)
{
    struct Stage {
        uint8_t t, a;
        bool reply_area;
    };
    for (Stage s : { Stage{ 0, 0, true }, Stage{ 0, 1, true }, Stage{ 1, 0, true }, Stage{ 1, 1, false } }) {
        tovak_handler_initialized = s.t;
        adblog_handler_initialized = s.a;
        for (size_t i = 0; i < std::size(ROWS); i++) {
            const Row& r = ROWS[i];
            bool open = r.gate == NONE || (r.gate == T && s.t) || (r.gate == A && s.a);
            if (open && (s.reply_area || r.gate == NONE))
                continue; // would run for real
            uint8_t req[16] = { 1, 0, 0, 0, 1, 0, 0, 0 };
            uint8_t rsp[64];
            memset(rsp, 0xab, sizeof rsp);
            uint32_t len = TOVAK_PKT_DATA_SIZE;
            uint32_t result = 1;
            std::string out;
            const std::string err = fd_output(STDERR_FILENO, [&] {
                out = fd_output(STDOUT_FILENO, [&] {
                    result = cmd_run(cmd_table[i], sizeof req, req, &len, s.reply_area ? rsp : nullptr);
                });
            });
            SCOPED_TRACE("id " + std::to_string(r.id) + " t " + std::to_string(s.t) + " a " + std::to_string(s.a));
            EXPECT_EQ(0u, result);
            EXPECT_NE(std::string::npos, out.find(": tovak_handler ERR >> ")) << out;
            EXPECT_EQ(out.find('\n') + 1, out.size()) << "one line only: " << out;
            // The shared module name says nothing; the cause line says which start-up was missing.
            const char* why = r.gate == T ? ": command refused: modem logging did not start, or no reply area\n"
                                          : ": command refused: capture did not start, or no reply area\n";
            EXPECT_NE(std::string::npos,
                      err.find(std::string("tovakd: cmd_table.cpp:") +
                               std::to_string(atoi(out.substr(out.find("ERR >> ") + 7).c_str())) + why))
                << err;
            // Without a reply area only the switches still set a length.
            bool answers = r.refused != KEEP && (s.reply_area || r.refused == ZERO);
            EXPECT_EQ(answers ? 4u : uint32_t(TOVAK_PKT_DATA_SIZE), len);
            const uint8_t first = !answers || !s.reply_area ? 0xab : r.refused == ZERO ? 0 : 0xff;
            EXPECT_EQ(std::string(4, char(first)), std::string(rsp, rsp + 4));
            EXPECT_EQ(0xab, rsp[4]);
        }
    }
    tovak_handler_initialized = 0;
    adblog_handler_initialized = 0;
}

// An open gate runs the handler once and hands back its result, with no
// ERR line; each gate kind, on commands that need no device.
TEST(CommandTable, OpenGatesRunTheHandler)
{
    struct Case {
        uint32_t id;
        uint8_t t, a;
        uint32_t len;
        std::string reply;
    };
    const Case cases[] = {
        { 0x10, 1, 0, 4, std::string("\0\0\0\0", 4) },                     // logging not running
        { 0x3d, 1, 0, 8, std::string("\x20\xa1\x07\0\0\x2d\x31\x01", 8) }, // 500000, 20000000
        { 0x3a, 0, 0, 1, std::string(1, '\0') },                           // no gate; no categories yet
        { 0x33, 0, 1, 4, std::string("\0\0\0\0", 4) },                     // capture off
    };
    for (const Case& c : cases) {
        tovak_handler_initialized = c.t;
        adblog_handler_initialized = c.a;
        uint8_t rsp[64];
        memset(rsp, 0xab, sizeof rsp);
        uint32_t len = TOVAK_PKT_DATA_SIZE;
        uint32_t result = 0;
        std::string out = fd_output(STDOUT_FILENO, [&] { result = cmd_run(*find_cmd(c.id), 0, nullptr, &len, rsp); });
        SCOPED_TRACE("id " + std::to_string(c.id));
        EXPECT_EQ(1u, result);
        EXPECT_EQ(std::string::npos, out.find("ERR >>")) << out;
        EXPECT_EQ(c.len, len);
        EXPECT_EQ(c.reply, std::string(rsp, rsp + c.reply.size()));
        EXPECT_EQ(0xab, rsp[c.reply.size()]);
    }
    tovak_handler_initialized = 0;
    adblog_handler_initialized = 0;
}

} // namespace
