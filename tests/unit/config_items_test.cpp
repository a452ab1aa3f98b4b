// The item sets: add, remove and get on each list, the message masks, the
// log-capture sequences and the state values.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "config/tovak_config.h"
#include "config_test_support.h"

namespace {

class ConfigItems : public ::testing::Test {
protected:
    void SetUp() override { reset_config(); }
    void TearDown() override { reset_config(); }
};

// The three ordered sets of ids behave alike.
struct IdSet {
    const char* name;
    int (*add)(uint32_t);
    int (*rm)(uint32_t);
    int (*get)(uint16_t**, int*);
};

const IdSet id_sets[] = {
    { "events", tovak_config_add_event, tovak_config_rm_event, tovak_config_get_events },
    { "log codes", tovak_config_add_log, tovak_config_rm_log, tovak_config_get_logs },
    { "dpl interfaces", tovak_config_add_dpl_if, tovak_config_rm_dpl_if, tovak_config_get_dpl_ifs },
};

// A get as a vector; the count, or -1 when the get failed.
std::vector<uint16_t> get_ids(const IdSet& set, int* result = nullptr)
{
    uint16_t* array = nullptr;
    int count = 12345;
    int rc = set.get(&array, &count);
    if (result)
        *result = rc;
    std::vector<uint16_t> ids;
    if (rc == 0) {
        EXPECT_GE(count, 0);
        ids.assign(array, array + count);
        free(array);
    } else {
        EXPECT_EQ(-1, count);
    }
    return ids;
}

std::map<uint16_t, uint32_t> get_msgs()
{
    tovak_msg_entry* entries = nullptr;
    int count = -7;
    EXPECT_EQ(0, tovak_config_get_msgs(&entries, &count));
    std::map<uint16_t, uint32_t> masks;
    uint16_t previous = 0;
    for (int i = 0; i < count; i++) {
        if (i > 0) {
            EXPECT_LT(previous, entries[i].ssid);
        }
        previous = entries[i].ssid;
        masks[entries[i].ssid] = entries[i].mask;
    }
    free(entries);
    return masks;
}

TEST_F(ConfigItems, BeforeAnyParseEveryListOperationFails)
{
    for (const IdSet& set : id_sets) {
        EXPECT_EQ(-1, set.add(1)) << set.name;
        EXPECT_EQ(-1, set.rm(1)) << set.name;
        uint16_t* array = nullptr;
        int count = 0;
        EXPECT_EQ(-1, set.get(&array, &count)) << set.name;
        EXPECT_EQ(-1, count) << set.name;
        EXPECT_EQ(nullptr, array) << set.name;
    }
    EXPECT_EQ(-1, tovak_config_add_msg(5, 1));
    EXPECT_EQ(-1, tovak_config_rm_msg(5));
    tovak_msg_entry* entries = nullptr;
    int count = 0;
    EXPECT_EQ(-1, tovak_config_get_msgs(&entries, &count));
    EXPECT_EQ(-1, count);
    EXPECT_EQ(nullptr, entries);
    // The sequences exist from the start, empty.
    uint16_t* categories = nullptr;
    EXPECT_EQ(0, tovak_config_get_adblog_categories(&categories, &count));
    EXPECT_EQ(0, count);
    free(categories);
}

TEST_F(ConfigItems, SetsKeepOneOfEachInAscendingOrder)
{
    tovak_config_load_text("<EventIDs></EventIDs>");
    for (const IdSet& set : id_sets) {
        int rc = -1;
        EXPECT_EQ(std::vector<uint16_t>{}, get_ids(set, &rc)) << set.name;
        EXPECT_EQ(0, rc) << set.name;
        for (uint32_t id : { 5u, 3u, 4u })
            EXPECT_EQ(0, set.add(id)) << set.name;
        EXPECT_EQ((std::vector<uint16_t>{ 3, 4, 5 }), get_ids(set)) << set.name;
        // Twice in, once out: gone.
        EXPECT_EQ(0, set.add(4));
        EXPECT_EQ(0, set.rm(4));
        EXPECT_EQ((std::vector<uint16_t>{ 3, 5 }), get_ids(set)) << set.name;
        // Removing what is not there is no error.
        EXPECT_EQ(0, set.rm(9));
        EXPECT_EQ((std::vector<uint16_t>{ 3, 5 }), get_ids(set)) << set.name;
        // Only the low 16 bits count.
        EXPECT_EQ(0, set.add(0x10007));
        EXPECT_EQ(0, set.rm(0xffff0003));
        EXPECT_EQ((std::vector<uint16_t>{ 5, 7 }), get_ids(set)) << set.name;
        EXPECT_EQ(0, set.add(0xffff));
        EXPECT_EQ(0, set.add(0));
        EXPECT_EQ((std::vector<uint16_t>{ 0, 5, 7, 0xffff }), get_ids(set)) << set.name;
    }
}

TEST_F(ConfigItems, EachSetIsItsOwn)
{
    tovak_config_load_text("<EventIDs>1</EventIDs><LogCodes>2</LogCodes><IfIDs>3</IfIDs>");
    EXPECT_EQ(0, tovak_config_add_event(10));
    EXPECT_EQ(0, tovak_config_rm_log(2));
    EXPECT_EQ((std::vector<uint16_t>{ 1, 10 }), get_ids(id_sets[0]));
    EXPECT_EQ(std::vector<uint16_t>{}, get_ids(id_sets[1]));
    EXPECT_EQ(std::vector<uint16_t>{ 3 }, get_ids(id_sets[2]));
}

TEST_F(ConfigItems, AddMsgReplacesTheMaskAndNeverMerges)
{
    tovak_config_load_text("<MessageLevels>00005/03, 00005/04, 00020/01</MessageLevels>");
    EXPECT_EQ((std::map<uint16_t, uint32_t>{ { 5, 0x18 }, { 20, 0x2 } }), get_msgs());
    EXPECT_EQ(0, tovak_config_add_msg(5, 0x01));
    EXPECT_EQ(0, tovak_config_add_msg(0x10003, 0));
    EXPECT_EQ(0, tovak_config_add_msg(0x1ffff, 65537));
    EXPECT_EQ((std::map<uint16_t, uint32_t>{ { 3, 0 }, { 5, 0x01 }, { 20, 0x2 }, { 65535, 65537 } }), get_msgs());
    EXPECT_EQ(0, tovak_config_rm_msg(20));
    EXPECT_EQ(0, tovak_config_rm_msg(21));
    EXPECT_EQ((std::map<uint16_t, uint32_t>{ { 3, 0 }, { 5, 0x01 }, { 65535, 65537 } }), get_msgs());
}

TEST_F(ConfigItems, SequencesAreReplacedWholeAndSizesSetByIndex)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    const uint16_t categories[] = { 0, 1, 1 };
    EXPECT_EQ(0, tovak_config_set_adblog_categories(categories, 3));
    const uint32_t sizes[] = { 1, 2, 3, 4, 5 };
    EXPECT_EQ(0, tovak_config_set_adblog_sizes(sizes, 5));
    EXPECT_EQ(0, tovak_config_set_adblog_size(4, 50));
    EXPECT_EQ(0, tovak_config_set_adblog_size(0, 0xffffffff));
    // One past the end is refused and extends nothing.
    EXPECT_EQ(-1, tovak_config_set_adblog_size(5, 6));
    EXPECT_EQ(-1, tovak_config_set_adblog_size(0xffffffff, 6));
    // A bad count is refused and loses nothing.
    EXPECT_EQ(-1, tovak_config_set_adblog_sizes(sizes, -1));
    EXPECT_EQ(-1, tovak_config_set_adblog_categories(nullptr, 2));

    uint16_t* got_categories = nullptr;
    uint32_t* got_sizes = nullptr;
    int n = -1;
    ASSERT_EQ(0, tovak_config_get_adblog_categories(&got_categories, &n));
    EXPECT_EQ((std::vector<uint16_t>{ 0, 1, 1 }), std::vector<uint16_t>(got_categories, got_categories + n));
    free(got_categories);
    ASSERT_EQ(0, tovak_config_get_adblog_sizes(&got_sizes, &n));
    EXPECT_EQ((std::vector<uint32_t>{ 0xffffffff, 2, 3, 4, 50 }), std::vector<uint32_t>(got_sizes, got_sizes + n));
    free(got_sizes);

    EXPECT_EQ(0, tovak_config_set_adblog_sizes(nullptr, 0));
    EXPECT_EQ(-1, tovak_config_set_adblog_size(0, 1));
    ASSERT_EQ(0, tovak_config_get_adblog_sizes(&got_sizes, &n));
    EXPECT_EQ(0, n);
    free(got_sizes);
    // An empty sequence is not written.
    EXPECT_EQ(std::string::npos, tovak_config_text().find("AdbSizeInfo"));
    EXPECT_NE(std::string::npos, tovak_config_text().find("\n<Category>\n0,1,1\n</Category>\n"));
}

TEST_F(ConfigItems, StateValuesAreStoredAsGiven)
{
    struct State {
        const char* name;
        int (*set)(uint32_t);
        uint32_t (*get)();
    };
    const State states[] = {
        { "log", tovak_config_set_log_state, tovak_config_get_log_state },
        { "dpl", tovak_config_set_dpl_state, tovak_config_get_dpl_state },
        { "buffer size", tovak_config_set_buffer_size, tovak_config_get_buffer_size },
        { "adblog", tovak_config_set_adblog_state, tovak_config_get_adblog_state },
    };
    for (const State& s : states) {
        for (uint32_t v : { 1u, 0u, 7u, 0xffffffffu }) {
            EXPECT_EQ(0, s.set(v)) << s.name;
            EXPECT_EQ(v, s.get()) << s.name;
        }
    }
    // Any non-zero state is written as on.
    tovak_config_set_log_state(7);
    EXPECT_NE(std::string::npos, tovak_config_text().find("<LogState>on</LogState>"));
}

TEST_F(ConfigItems, CopiesOutliveTheListsTheyCameFrom)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    uint16_t* events = nullptr;
    tovak_msg_entry* msgs = nullptr;
    int n_events = 0;
    int n_msgs = 0;
    ASSERT_EQ(0, tovak_config_get_events(&events, &n_events));
    ASSERT_EQ(0, tovak_config_get_msgs(&msgs, &n_msgs));
    // A load replaces every list.
    tovak_config_load_text("<EventIDs>9</EventIDs>");
    ASSERT_EQ(14, n_events);
    EXPECT_EQ(1498, events[0]);
    EXPECT_EQ(1972, events[13]);
    ASSERT_EQ(7, n_msgs);
    EXPECT_EQ(5, msgs[0].ssid);
    EXPECT_EQ(0x18u, msgs[0].mask);
    EXPECT_EQ(3010, msgs[6].ssid);
    free(events);
    free(msgs);
}

TEST_F(ConfigItems, EditsShowInTheWrittenFile)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    tovak_config_add_event(1);
    tovak_config_rm_event(1972);
    tovak_config_add_log(0x0001);
    tovak_config_add_msg(5, 0x80000001);
    tovak_config_add_dpl_if(0);
    std::string text = tovak_config_text();
    EXPECT_NE(std::string::npos, text.find("\n00001, 01498, ")) << text;
    EXPECT_NE(std::string::npos, text.find(", 01971\n</EventIDs>")) << text;
    EXPECT_NE(std::string::npos, text.find("\n0x0001, 0x412f, ")) << text;
    EXPECT_NE(std::string::npos, text.find("\n00005/00,00005/31,00015/03,")) << text;
    EXPECT_NE(std::string::npos, text.find("\n0, 1, 15, 19\n</IfIDs>")) << text;
}

} // namespace
