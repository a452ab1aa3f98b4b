// The list fields of dm.cfg: number rules, splitting, order, written forms
// and the limits that travel with the lists.
#include "config/tovak_config_lists.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

template <typename T>
std::vector<uint16_t> ids(const T& set)
{
    return std::vector<uint16_t>(set.begin(), set.end());
}

// One token through every list; the narrow base rules are deliberate.
TEST(ConfigLists, EachListReadsNumbersByItsOwnRule)
{
    struct Case {
        const char* token;
        uint16_t event; // interface ids alike
        uint16_t log_code;
        uint16_t category;
        uint32_t size;
    };
    // clang-format off
    const Case cases[] = {
        { "01498",      1498,  0x1498, 1498,  1498 },
        { "+7",         7,     7,      7,     7 },
        { "0x10",       0,     0x10,   0,     0 },
        { "0XB061",     0,     0xb061, 0,     0 },
        { "B061",       0,     0xb061, 0,     0 },
        { "0x100X",     0x100, 0,      0,     0 },
        { "12abc",      12,    65535,  12,    12 },
        { "70000",      65535, 65535,  65535, 70000 },
        { "-1",         65535, 65535,  65535, 4294967295u },
        { "-65535",     1,     65535,  1,     4294901761u },
        { "5000000000", 65535, 65535,  65535, 4294967295u },
        { "x",          0,     0,      0,     0 },
    };
    // clang-format on
    for (const Case& c : cases) {
        EXPECT_EQ(std::vector<uint16_t>{ c.event }, ids(tovak_event_list_create(c.token, 0)->ids)) << c.token;
        EXPECT_EQ(std::vector<uint16_t>{ c.event }, ids(tovak_if_list_create(c.token)->ids)) << c.token;
        EXPECT_EQ(std::vector<uint16_t>{ c.log_code }, ids(tovak_log_list_create(c.token, {})->codes)) << c.token;
        EXPECT_EQ(std::vector<uint16_t>{ c.category }, tovak_config_categories_create(c.token)) << c.token;
        EXPECT_EQ(std::vector<uint32_t>{ c.size }, tovak_config_sizes_create(c.token)) << c.token;
    }
}

TEST(ConfigLists, MessageLevelsSetOneBitPerLevel)
{
    struct Case {
        const char* text;
        std::map<uint16_t, uint32_t> masks;
    };
    const Case cases[] = {
        { "00005/03, 00005/04, 00005/03", { { 5, 0x18 } } },
        { "0x05/0x03", { { 0, 0x1 } } },
        { "0x50X/0x2X0X", { { 0x50, 0x4 } } },
        { "5/31 6/32 7/-1", { { 5, 0x80000000u }, { 6, 0 }, { 7, 0 } } },
        { "5/3/4 /3", { { 0, 0x8 }, { 5, 0x8 } } },
        { "00005 03, 9", {} },
        { "70000/1", { { 65535, 0x2 } } },
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.masks, tovak_msg_list_create(c.text, {})->masks) << c.text;
}

TEST(ConfigLists, SplitOrderAndWriteBack)
{
    using Write = std::function<std::string(std::string_view)>;
    const Write events = [](std::string_view t) { return tovak_event_list_text(*tovak_event_list_create(t, 0)); };
    const Write logs = [](std::string_view t) { return tovak_log_list_text(*tovak_log_list_create(t, {})); };
    const Write ifs = [](std::string_view t) { return tovak_if_list_text(*tovak_if_list_create(t)); };
    const Write msgs = [](std::string_view t) { return tovak_msg_list_text(*tovak_msg_list_create(t, {})); };
    const Write cats = [](std::string_view t) { return tovak_config_categories_text(tovak_config_categories_create(t)); };
    const Write sizes = [](std::string_view t) { return tovak_config_sizes_text(tovak_config_sizes_create(t)); };
    struct Case {
        const Write& write;
        const char* text;
        const char* written;
    };
    const Case cases[] = {
        { events, "01498, 01499, 01499,01501", "01498, 01499, 01501" },
        { events, "  00000,00256\t00257\n,\r\v\f            65535,", "00000, 00256, 00257, 65535" },
        { logs, "0x412F,  713F ,0xb061", "0x412f, 0x713f, 0xb061" },
        { logs, "12, 0x1009,0x1010,   0x1011\n0x1012\n,0x1013\t", "0x0012, 0x1009, 0x1010, 0x1011, 0x1012, 0x1013" },
        { ifs, "19 1,15\t1", "1, 15, 19" },
        { msgs, "03010/04 00005/03 00005/04 00005/03", "00005/03,00005/04,03010/04" },
        { msgs, "5/40, 9, 6/0 6/31", "00006/00,00006/31" },
        { cats, "1, 1,,0", "1,1,0" },
        { sizes, " 10000000 ,5,,3000000000", "10000000,5,3000000000" },
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.written, c.write(c.text)) << c.text;
    for (const Write* w : { &events, &logs, &ifs, &msgs, &cats, &sizes })
        EXPECT_EQ("", (*w)(",,"));
}

TEST(ConfigLists, LimitsAreTheModemsOrBuiltIn)
{
    EXPECT_EQ(2166, tovak_event_list_create("", 0)->limit);
    EXPECT_EQ(1234, tovak_event_list_create("", 1234)->limit);
    const uint32_t builtin[16] = { 3003, 1425, 3003, 3003, 2328, 1064, 3003, 2910, 3003, 3003, 914, 521, 3003 };
    EXPECT_TRUE(std::equal(builtin, builtin + 16, tovak_log_list_create("", {})->last_items));
    // Equipment ids the modem did not report stay 0.
    const uint32_t reported[16] = { 7, 8, 9 };
    EXPECT_TRUE(std::equal(reported, reported + 16, tovak_log_list_create("", { 7, 8, 9 })->last_items));

    auto msgs = tovak_msg_list_create("", {});
    ASSERT_EQ(23u, msgs->range_count);
    EXPECT_EQ(6072, msgs->ranges[10].last);
    EXPECT_EQ(50000, msgs->ranges[22].first);
    std::vector<uint32_t> seventy;
    for (uint32_t i = 0; i < 70; i++)
        seventy.push_back((i + 5) << 16 | i);
    testing::internal::CaptureStdout();
    msgs = tovak_msg_list_create("", seventy);
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStdout().find("Total ssid Range cnt input 70, result 50\n"));
    ASSERT_EQ(50u, msgs->range_count);
    EXPECT_EQ(49, msgs->ranges[49].first);
    EXPECT_EQ(54, msgs->ranges[49].last);
}

} // namespace
