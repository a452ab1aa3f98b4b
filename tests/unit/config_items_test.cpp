// The item sets: add, remove and get on each list, the message masks and the
// log-capture sequences.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "config_test_support.h"

namespace {

// A copy taken with get and freed here; the result and count go to rc/n.
template <typename T, typename Get>
std::vector<T> got(Get get, int* rc = nullptr)
{
    T* array = nullptr;
    int count = 12345;
    int result = get(&array, &count);
    if (rc)
        *rc = result;
    EXPECT_EQ(result == 0, count >= 0);
    std::vector<T> v(array, array + std::max(count, 0));
    free(array);
    return v;
}

TEST(ConfigItems, IdSetsKeepOneOfEachInOrderOnceParsed)
{
    struct IdSet {
        int (*add)(uint32_t);
        int (*rm)(uint32_t);
        int (*get)(uint16_t**, int*);
    };
    const IdSet sets[] = {
        { tovak_config_add_event, tovak_config_rm_event, tovak_config_get_events },
        { tovak_config_add_log, tovak_config_rm_log, tovak_config_get_logs },
        { tovak_config_add_dpl_if, tovak_config_rm_dpl_if, tovak_config_get_dpl_ifs },
    };
    reset_config();
    int rc = 0;
    for (const IdSet& s : sets) {
        EXPECT_EQ(-1, s.add(1));
        EXPECT_EQ(-1, s.rm(1));
        got<uint16_t>(s.get, &rc);
        EXPECT_EQ(-1, rc);
    }
    tovak_config_load_text("");
    for (const IdSet& s : sets) {
        EXPECT_EQ(std::vector<uint16_t>{}, got<uint16_t>(s.get, &rc));
        EXPECT_EQ(0, rc);
        for (uint32_t id : { 5u, 3u, 4u, 4u, 0x10007u, 0xffffu })
            EXPECT_EQ(0, s.add(id));
        for (uint32_t id : { 4u, 9u, 0xffff0003u })
            EXPECT_EQ(0, s.rm(id));
        EXPECT_EQ((std::vector<uint16_t>{ 5, 7, 0xffff }), got<uint16_t>(s.get));
    }
    EXPECT_EQ(0, tovak_config_rm_event(5));
    EXPECT_EQ((std::vector<uint16_t>{ 5, 7, 0xffff }), got<uint16_t>(tovak_config_get_logs));
    // A copy outlives the list it came from.
    uint16_t* events = nullptr;
    int n = 0;
    ASSERT_EQ(0, tovak_config_get_events(&events, &n));
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    EXPECT_EQ((std::vector<uint16_t>{ 7, 0xffff }), std::vector<uint16_t>(events, events + n));
    free(events);
    reset_config();
}

TEST(ConfigItems, AddMsgReplacesTheMaskAndNeverMerges)
{
    reset_config();
    EXPECT_EQ(-1, tovak_config_add_msg(5, 1));
    EXPECT_EQ(-1, tovak_config_rm_msg(5));
    tovak_config_load_text("<MessageLevels>00005/03, 00005/04, 00020/01</MessageLevels>");
    EXPECT_EQ(0, tovak_config_add_msg(5, 0x01));
    EXPECT_EQ(0, tovak_config_add_msg(0x10003, 0));
    EXPECT_EQ(0, tovak_config_rm_msg(20));
    EXPECT_EQ(0, tovak_config_rm_msg(21));
    std::vector<tovak_msg_entry> entries = got<tovak_msg_entry>(tovak_config_get_msgs);
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(3, entries[0].ssid);
    EXPECT_EQ(0u, entries[0].mask);
    EXPECT_EQ(5, entries[1].ssid);
    EXPECT_EQ(1u, entries[1].mask);
    reset_config();
}

TEST(ConfigItems, SequencesAreReplacedWholeAndSizesSetOnlyInRange)
{
    reset_config();
    const uint16_t categories[] = { 0, 1, 1 };
    const uint32_t sizes[] = { 1, 2, 3 };
    EXPECT_EQ(std::vector<uint16_t>{}, got<uint16_t>(tovak_config_get_adblog_categories));
    EXPECT_EQ(0, tovak_config_set_adblog_categories(categories, 3));
    EXPECT_EQ(0, tovak_config_set_adblog_sizes(sizes, 3));
    EXPECT_EQ(0, tovak_config_set_adblog_size(2, 0xffffffff));
    EXPECT_EQ(-1, tovak_config_set_adblog_size(3, 6));
    EXPECT_EQ(-1, tovak_config_set_adblog_sizes(sizes, -1));
    EXPECT_EQ(-1, tovak_config_set_adblog_categories(nullptr, 2));
    EXPECT_EQ((std::vector<uint16_t>{ 0, 1, 1 }), got<uint16_t>(tovak_config_get_adblog_categories));
    EXPECT_EQ((std::vector<uint32_t>{ 1, 2, 0xffffffff }), got<uint32_t>(tovak_config_get_adblog_sizes));
    reset_config();
}

} // namespace
