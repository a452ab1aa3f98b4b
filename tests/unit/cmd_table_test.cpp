// Every command's gate, checked in one table, with the handlers called
// directly: a gated handler refuses before it touches anything.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

#include "daemon/cmd_table.h"
#include "handlers/tovak_handler.h"
#include "protocol/tovak_cmd_ids.h"
#include "protocol/tovak_pkt.h"

namespace {

enum Gate { T, A, NONE };

struct Row {
    uint32_t id;
    Gate gate;
};

// clang-format off
const Row ROWS[CMD_TABLE_SIZE] = {
    { 0x00, T }, { 0x01, T }, { 0x03, T }, { 0x04, T }, { 0x05, T }, { 0x06, T }, { 0x07, T }, { 0x08, T },
    { 0x09, T }, { 0x0a, T }, { 0x0b, T }, { 0x0c, T }, { 0x0d, T }, { 0x0e, T }, { 0x0f, T }, { 0x10, T },
    { 0x11, T }, { 0x12, T }, { 0x13, T }, { 0x14, T }, { 0x2f, A }, { 0x30, A }, { 0x32, A }, { 0x33, A },
    { 0x36, A }, { 0x37, A }, { 0x38, A }, { 0x39, A }, { 0x3a, NONE }, { 0x3b, A }, { 0x3c, A }, { 0x3d, T },
    { 0x46, T }, { 0x47, T }, { 0x48, T }, { 0x49, T }, { 0x50, T }, { 0x51, T }, { 0x52, T }, { 0x53, T },
    { 0x54, T }, { 0x55, T }, { 0x02, NONE },
};
// clang-format on

TEST(CommandTable, OneEntryPerIdInOrderAndNothingElseFound)
{
    std::set<uint32_t> ids;
    for (size_t i = 0; i < CMD_TABLE_SIZE; i++) {
        EXPECT_EQ(ROWS[i].id, cmd_table[i].id) << i;
        EXPECT_EQ(cmd_table[i].handler, find_cmd_handler(ROWS[i].id)) << ROWS[i].id;
        ids.insert(ROWS[i].id);
    }
    for (uint32_t id = 0; id < 300; id++) {
        EXPECT_TRUE(ids.count(id) || find_cmd_handler(id) == nullptr) << id;
    }
    EXPECT_EQ(nullptr, find_cmd_handler(0xffffffff));
}

// The gates as they stand before start-up, with one flag set, and without a
// reply area: a refusal returns 0 and leaves the reply as it was, but for
// the switches, which answer 0, and the size and path, which answer -1.
TEST(CommandTable, GatedCommandsRefuseUntouched)
{
    struct Stage {
        uint8_t t, a;
        bool reply_area;
    };
    for (Stage s : { Stage{ 0, 0, true }, Stage{ 0, 1, true }, Stage{ 1, 0, true }, Stage{ 1, 1, false } }) {
        tovak_handler_initialized = s.t;
        adblog_handler_initialized = s.a;
        for (const Row& r : ROWS) {
            bool open = r.gate == NONE || (r.gate == T && s.t) || (r.gate == A && s.a);
            if (open && (s.reply_area || r.gate == NONE))
                continue; // would run for real
            uint8_t req[16] = { 1, 0, 0, 0, 1, 0, 0, 0 };
            uint8_t rsp[64];
            memset(rsp, 0xab, sizeof rsp);
            uint32_t len = TOVAK_PKT_DATA_SIZE;
            EXPECT_EQ(0u, cmd_table[&r - ROWS].handler(sizeof req, req, &len, s.reply_area ? rsp : nullptr))
                << "id " << r.id << " t " << int(s.t) << " a " << int(s.a);
            const std::map<uint32_t, uint8_t> answers = { { 0, 0 }, { 1, 0 }, { 3, 0xff }, { 4, 0xff } };
            // Without a reply area only the switches still set a length.
            bool answers_anyway = answers.count(r.id) && (s.reply_area || r.id <= 1);
            EXPECT_EQ(answers_anyway ? 4u : uint32_t(TOVAK_PKT_DATA_SIZE), len) << r.id;
            EXPECT_EQ(answers_anyway && s.reply_area ? answers.at(r.id) : 0xab, rsp[3]) << r.id;
            EXPECT_EQ(0xab, rsp[4]) << r.id;
        }
    }
    tovak_handler_initialized = 0;
    adblog_handler_initialized = 0;
}

} // namespace
