// The list fields of dm.cfg: splitting, number conversion, the per-list base
// rules, ordering and deduplication, limits and written forms.
#include "config/tovak_config_lists.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using Tokens = std::vector<std::string>;

Tokens strings(const std::vector<std::string_view>& views)
{
    return Tokens(views.begin(), views.end());
}

std::vector<uint16_t> ids(const std::set<uint16_t>& set)
{
    return std::vector<uint16_t>(set.begin(), set.end());
}

TEST(ConfigSplit, ListSplitterTakesBlanksTabsLineBreaksAndCommasInAnyMix)
{
    struct Case {
        std::string text;
        Tokens tokens;
    };
    const Case cases[] = {
        { "", {} },
        { " ,\t\n\r\v\f,, ", {} },
        { "01498, 01499, 01501, ", { "01498", "01499", "01501" } },
        { "  00000,00256,00257", { "00000", "00256", "00257" } },
        { "12, 0x1009,0x1010,   0x1011\n0x1012\n,0x1013\t", { "12", "0x1009", "0x1010", "0x1011", "0x1012", "0x1013" } },
        { "1            2", { "1", "2" } },
        { "a/b;c", { "a/b;c" } },
        { std::string("x\0y z", 5), { std::string("x\0y", 3), "z" } },
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.tokens, strings(tovak_config_split_list(c.text))) << c.text;
}

TEST(ConfigSplit, SequenceSplitterTakesCommasAloneAndKeepsBlanks)
{
    struct Case {
        std::string text;
        Tokens tokens;
    };
    const Case cases[] = {
        { "", {} },
        { ",,,", {} },
        { "1,1,0,1", { "1", "1", "0", "1" } },
        { "1, 1,,0", { "1", " 1", "0" } },
        { " 10000000 ,\t5 ", { " 10000000 ", "\t5 " } },
        { "1\n2", { "1\n2" } },
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.tokens, strings(tovak_config_split_sequence(c.text))) << c.text;
}

TEST(ConfigNumber, ReadsLikeAStreamAndClampsToTheField)
{
    struct Case {
        const char* token;
        bool hex;
        uint64_t max;
        uint64_t value;
    };
    // clang-format off
    const Case cases[] = {
        { "01498",                 false, 0xffff,     1498 },
        { "  \t42",                false, 0xffff,     42 },
        { "+7",                    false, 0xffff,     7 },
        { "12abc",                 false, 0xffff,     12 },
        { "0x100",                 false, 0xffff,     0 },
        { "abc",                   false, 0xffff,     0 },
        { "",                      false, 0xffff,     0 },
        { "-",                     false, 0xffff,     0 },
        { "0xB061",                true,  0xffff,     0xb061 },
        { "0Xb061",                true,  0xffff,     0xb061 },
        { "b061",                  true,  0xffff,     0xb061 },
        { "0x",                    true,  0xffff,     0 },
        { "0xg",                   true,  0xffff,     0 },
        { "12g3",                  true,  0xffff,     0x12 },
        { "65535",                 false, 0xffff,     65535 },
        { "65536",                 false, 0xffff,     65535 },
        { "0149801499",            false, 0xffff,     65535 },
        { "1ffff",                 true,  0xffff,     65535 },
        { "-1",                    false, 0xffff,     65535 },
        { "-65535",                false, 0xffff,     1 },
        { "-70000",                false, 0xffff,     65535 },
        { "4294967295",            false, 0xffffffff, 4294967295u },
        { "4294967296",            false, 0xffffffff, 4294967295u },
        { "-1294967296",           false, 0xffffffff, 3000000000u },
        { "99999999999999999999999999", false, 0xffffffff, 4294967295u },
    };
    // clang-format on
    for (const Case& c : cases)
        EXPECT_EQ(c.value, tovak_config_read_number(c.token, c.hex, c.max)) << c.token << (c.hex ? " hex" : " dec");
}

TEST(ConfigNumber, BaseTestNeedsBothPrefixes)
{
    EXPECT_TRUE(tovak_config_has_both_prefixes("0x10 0X"));
    EXPECT_TRUE(tovak_config_has_both_prefixes("0X0x"));
    EXPECT_FALSE(tovak_config_has_both_prefixes("0x1000"));
    EXPECT_FALSE(tovak_config_has_both_prefixes("0X1000"));
    EXPECT_FALSE(tovak_config_has_both_prefixes("0xX"));
    EXPECT_FALSE(tovak_config_has_both_prefixes(""));
}

// Each list reads one token by its own base rule; the narrow rules are
// deliberate: a "0x" event id is 0 and a log code with both prefixes is
// decimal.
TEST(ConfigLists, EachListHasItsOwnBaseRule)
{
    struct Case {
        const char* token;
        uint16_t event;
        uint16_t log_code;
        uint16_t if_id;
    };
    // clang-format off
    const Case cases[] = {
        { "01498",   1498,  0x1498, 1498 },
        { "12",      12,    0x12,   12 },
        { "0x10",    0,     0x10,   0 },
        { "0XB061",  0,     0xb061, 0 },
        { "0x100X",  0x100, 0,      0x100 },
        { "B061",    0,     0xb061, 0 },
    };
    // clang-format on
    for (const Case& c : cases) {
        EXPECT_EQ(std::vector<uint16_t>{ c.event }, ids(tovak_event_list_create(c.token, 0)->ids)) << c.token;
        EXPECT_EQ(std::vector<uint16_t>{ c.log_code }, ids(tovak_log_list_create(c.token, {})->codes)) << c.token;
        EXPECT_EQ(std::vector<uint16_t>{ c.if_id }, ids(tovak_if_list_create(c.token)->ids)) << c.token;
    }
}

TEST(ConfigLists, MessagePartsEachHaveTheDecimalRule)
{
    struct Case {
        const char* text;
        std::map<uint16_t, uint32_t> masks;
    };
    const Case cases[] = {
        { "00005/03, 00005/04, 00005/03", { { 5, 0x18 } } },
        { "0x05/0x03", { { 0, 0x1 } } },
        { "0x50X/0x2X0X", { { 0x50, 0x4 } } },
        { "5/31", { { 5, 0x80000000u } } },
        { "5/32, 6/40, 7/-1", { { 5, 0 }, { 6, 0 }, { 7, 0 } } },
        { "5/3/4", { { 5, 0x8 } } },
        { "/3", { { 0, 0x8 } } },
        { "00005 03, 9", {} },
        { "70000/1", { { 65535, 0x2 } } },
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.masks, tovak_msg_list_create(c.text, {})->masks) << c.text;
}

TEST(ConfigLists, SetsAreOrderedWithoutDuplicates)
{
    auto events = tovak_event_list_create("01498, 01499, 01499,01501", 0);
    EXPECT_EQ((std::vector<uint16_t>{ 1498, 1499, 1501 }), ids(events->ids));
    EXPECT_EQ("01498, 01499, 01501", tovak_event_list_text(*events));

    auto logs = tovak_log_list_create("0x412F,  713F ,0xb061", {});
    EXPECT_EQ((std::vector<uint16_t>{ 0x412f, 0x713f, 0xb061 }), ids(logs->codes));
    EXPECT_EQ("0x412f, 0x713f, 0xb061", tovak_log_list_text(*logs));

    auto ifs = tovak_if_list_create("19 1,15\t1");
    EXPECT_EQ((std::vector<uint16_t>{ 1, 15, 19 }), ids(ifs->ids));
    EXPECT_EQ("1, 15, 19", tovak_if_list_text(*ifs));

    auto msgs = tovak_msg_list_create("03010/04 00005/03 00005/04 00005/03 00020/00", {});
    EXPECT_EQ("00005/03,00005/04,00020/00,03010/04", tovak_msg_list_text(*msgs));
}

TEST(ConfigLists, SequencesKeepTextOrderAndDuplicates)
{
    EXPECT_EQ((std::vector<uint16_t>{ 1, 1, 0 }), tovak_config_categories_create("1, 1,,0"));
    EXPECT_EQ((std::vector<uint16_t>{ 0, 7, 65535, 65535 }), tovak_config_categories_create("x,7up,70000,-1"));
    EXPECT_EQ((std::vector<uint32_t>{ 10000000, 10000000, 5000000, 20000000 }),
              tovak_config_sizes_create("10000000, 10000000, 5000000, 20000000"));
    // Decimal only: the C conversion knows no hexadecimal.
    EXPECT_EQ((std::vector<uint32_t>{ 0, 3000000000u, 4294967295u }),
              tovak_config_sizes_create("0x10,3000000000,5000000000"));
    EXPECT_EQ("1,1,0,1", tovak_config_categories_text({ 1, 1, 0, 1 }));
    EXPECT_EQ("10000000,3000000000", tovak_config_sizes_text({ 10000000, 3000000000u }));
    EXPECT_EQ("", tovak_config_categories_text({}));
    EXPECT_EQ("", tovak_config_sizes_text({}));
}

TEST(ConfigLists, WrittenFormsPadAndJoin)
{
    struct Case {
        const char* name;
        std::string written;
        std::string expected;
    };
    const Case cases[] = {
        { "empty events", tovak_event_list_text(*tovak_event_list_create("", 0)), "" },
        { "empty logs", tovak_log_list_text(*tovak_log_list_create(" , ", {})), "" },
        { "empty ifs", tovak_if_list_text(*tovak_if_list_create("")), "" },
        { "empty messages", tovak_msg_list_text(*tovak_msg_list_create("", {})), "" },
        { "only mask 0", tovak_msg_list_text(*tovak_msg_list_create("5/40", {})), "" },
        { "one event", tovak_event_list_text(*tovak_event_list_create("7", 0)), "00007" },
        { "event extremes", tovak_event_list_text(*tovak_event_list_create("65535 0", 0)), "00000, 65535" },
        { "one log", tovak_log_list_text(*tovak_log_list_create("A", {})), "0x000a" },
        { "one if", tovak_if_list_text(*tovak_if_list_create("007")), "7" },
        { "all levels", tovak_msg_list_text(*tovak_msg_list_create("1/0 1/31 0/9", {})), "00000/09,00001/00,00001/31" },
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.expected, c.written) << c.name;
}

TEST(ConfigLimits, EventLimitIsTheModemCountOrBuiltIn)
{
    EXPECT_EQ(2166, tovak_event_list_create("1", 0)->limit);
    EXPECT_EQ(1234, tovak_event_list_create("1", 1234)->limit);
}

TEST(ConfigLimits, LogTableIsBuiltInUnlessTheModemReported)
{
    const uint32_t builtin[16] = { 3003, 1425, 3003, 3003, 2328, 1064, 3003, 2910,
                                   3003, 3003, 914,  521,  3003, 0,    0,    0 };
    auto list = tovak_log_list_create("", {});
    for (int q = 0; q < 16; q++)
        EXPECT_EQ(builtin[q], list->last_items[q]) << q;

    std::vector<uint32_t> ten;
    for (uint32_t i = 0; i < 10; i++)
        ten.push_back(100 + i);
    list = tovak_log_list_create("", ten);
    for (int q = 0; q < 16; q++)
        EXPECT_EQ(q < 10 ? 100u + uint32_t(q) : 0u, list->last_items[q]) << q;

    std::vector<uint32_t> twenty(20, 7);
    twenty[15] = 15;
    twenty[16] = 16;
    list = tovak_log_list_create("", twenty);
    EXPECT_EQ(15u, list->last_items[15]);
}

TEST(ConfigLimits, MessageRangesAreBuiltInUnlessTheModemReported)
{
    auto list = tovak_msg_list_create("", {});
    ASSERT_EQ(23u, list->range_count);
    EXPECT_EQ(0, list->ranges[0].first);
    EXPECT_EQ(88, list->ranges[0].last);
    EXPECT_EQ(6000, list->ranges[10].first);
    EXPECT_EQ(6072, list->ranges[10].last);
    EXPECT_EQ(50000, list->ranges[22].first);
    EXPECT_EQ(50000, list->ranges[22].last);
    for (uint32_t i = 1; i < list->range_count; i++)
        EXPECT_LT(list->ranges[i - 1].last, list->ranges[i].first) << i;

    // The parser checks no SSID against the ranges: 40000 lies in none.
    EXPECT_EQ((std::map<uint16_t, uint32_t>{ { 40000, 0x2 } }), tovak_msg_list_create("40000/1", {})->masks);
}

TEST(ConfigLimits, ModemRangesAreCappedAtFiftyAndLogged)
{
    struct Case {
        size_t offered;
        uint32_t kept;
    };
    for (Case c : { Case{ 1, 1 }, Case{ 50, 50 }, Case{ 51, 50 }, Case{ 70, 50 } }) {
        std::vector<uint32_t> ranges;
        for (uint32_t i = 0; i < c.offered; i++)
            ranges.push_back(((i * 10 + 5) << 16) | (i * 10));
        testing::internal::CaptureStdout();
        auto list = tovak_msg_list_create("", ranges);
        std::string out = testing::internal::GetCapturedStdout();
        ASSERT_EQ(c.kept, list->range_count) << c.offered;
        for (uint32_t i = 0; i < c.kept; i++) {
            EXPECT_EQ(i * 10, list->ranges[i].first);
            EXPECT_EQ(i * 10 + 5, list->ranges[i].last);
        }
        std::string line = "Total ssid Range cnt input " + std::to_string(c.offered) + ", result " + std::to_string(c.kept) + "\n";
        EXPECT_NE(std::string::npos, out.find(line)) << out;
    }
}

} // namespace
