// dm.cfg as read and written: element extraction, comments, values, the
// exact layout, round trips, and bytes of any kind.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

#include "config_test_support.h"
#include "sim_device.h"

namespace {

class ConfigFile : public ::testing::Test {
protected:
    void SetUp() override { reset_config(); }
    void TearDown() override { reset_config(); }

    // Loads text through a file, as the daemon reads dm.cfg.
    int load(const std::string& text)
    {
        EXPECT_TRUE(write_file(in, text));
        return tovak_config_load_file(in.c_str());
    }

    // Saves, loads back, and checks that nothing changed.
    void expect_round_trip(const std::string& what)
    {
        std::string written = tovak_config_text();
        tovak_config_save_file(out.c_str());
        ASSERT_EQ(written, read_file(out)) << what;
        ASSERT_EQ(0, tovak_config_load_file(out.c_str())) << what;
        EXPECT_EQ(written, tovak_config_text()) << what;
    }

    TempDir dir;
    std::string in = dir.path() + "/in.cfg";
    std::string out = dir.path() + "/out.cfg";
};

TEST_F(ConfigFile, DefaultTextSavedGivesTheExactLayoutAndLoadsBack)
{
    EXPECT_EQ(0, tovak_config_load_text(DEFAULT_CONFIG_TEXT));
    expect_round_trip("default");
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(out));
    tovak_config_locked c;
    EXPECT_EQ(2166, c->events->limit);
    EXPECT_EQ(23u, c->messages->range_count);
    EXPECT_EQ(0x18u, c->messages->masks.at(3010));
}

// Each file, as read, shows in what the daemon writes back.
TEST_F(ConfigFile, ReadsElementsCommentsAndValues)
{
    struct Case {
        const char* file;
        const char* written;
    };
    const Case cases[] = {
        { "<LogState>on</LogState>", "<LogState>on</LogState>" },
        { "<LogState> on</LogState>", "<LogState>off</LogState>" },
        { "<LogState>ON</LogState>", "<LogState>off</LogState>" },
        { "<DplState>on</DplState><DplState>off</DplState>", "<DplState>on</DplState>" },
        { "#<LogState>on</LogState>", "<LogState>off</LogState>" },
        { " #<LogState>on</LogState>", "<LogState>off</LogState>" },
        { "<LogState>on</LogState> # note", "<LogState>on</LogState>" },
        { "<LogState>o#x\nn</LogState>", "<LogState>on</LogState>" },
        { "<AdbLogState>\non \n</AdbLogState>", "<AdbLogState>off</AdbLogState>" },
        { "<BufferSize>0x1000</BufferSize>", "<BufferSize>0</BufferSize>" },
        { "<BufferSize>0x1000 0X</BufferSize>", "<BufferSize>4096</BufferSize>" },
        { "<BufferSize> 12MB</BufferSize>", "<BufferSize>12</BufferSize>" },
        { "<BufferSize>3000000000</BufferSize>", "<BufferSize>-1294967296</BufferSize>" },
        { "<BufferSize>99999999999</BufferSize>", "<BufferSize>-1</BufferSize>" },
        { "<LogState>on</LogState>", "<BufferSize>0</BufferSize>" },
        { "<EventIDs>01498,\n01499</EventIDs>", "\n01498, 01499\n" },
        // Lines join with nothing between them.
        { "<EventIDs>01498\n01499</EventIDs>", "\n65535\n" },
        { "<EventIDs>\r\n1,\r\n\r\n2\r\n</EventIDs>\r\n", "\n00001, 00002\n" },
        { "<EventIDs>\n1, # one\n#5,\n2\n</EventIDs>", "\n00001, 00002\n" },
        { "<EventIDs>1</EventIDs><EventIDs>2</EventIDs>", "\n00001\n" },
        // No close tag: the rest of the file is the value.
        { "<EventIDs>1,\n2,\n<IfIDs>3</IfIDs>", "\n00000, 00001, 00002\n" },
        { "</EventIDs><EventIDs>4 5\n6</EventIDs>", "\n00004, 00005\n" },
        { "<Event\nIDs>1</EventIDs>", "<EventIDs>\n\n</EventIDs>" },
        { "<Category>1, 1,,0</Category>", "\n<Category>\n1,1,0\n</Category>\n" },
    };
    for (const Case& c : cases) {
        ASSERT_EQ(0, load(c.file)) << c.file;
        EXPECT_NE(std::string::npos, tovak_config_text().find(c.written)) << c.file << "\n" << tovak_config_text();
    }
    // Text held in memory has no comments.
    tovak_config_load_text("#<LogState>on</LogState>");
    EXPECT_EQ(1u, tovak_config_get_log_state());
}

TEST_F(ConfigFile, ExtremesRoundTrip)
{
    const char* const files[] = {
        "<LogState>on</LogState><DplState>on</DplState><AdbLogState>on</AdbLogState><BufferSize>2147483648</BufferSize>",
        "<EventIDs>0 65535</EventIDs><LogCodes>0 ffff</LogCodes><MessageLevels>0/0 0/31 65535/7</MessageLevels>"
        "<IfIDs>65535,0</IfIDs><Category>65535,0</Category><AdbSizeInfo>4294967295,0</AdbSizeInfo>",
    };
    for (const char* f : files) {
        ASSERT_EQ(0, load(f));
        expect_round_trip(f);
        EXPECT_EQ(0u, read_file(out).rfind(CONFIG_FILE_HEAD, 0));
    }
    // The one loss: a message entry with mask 0 is not written.
    tovak_config_load_text("<MessageLevels>5/3 6/40</MessageLevels>");
    EXPECT_EQ(2u, tovak_config_locked()->messages->masks.size());
    expect_round_trip("mask 0");
    EXPECT_EQ(1u, tovak_config_locked()->messages->masks.size());
}

TEST_F(ConfigFile, WriterFollowsItsConditions)
{
    // Before any parse there are no lists: states only.
    tovak_config_set_log_state(1);
    tovak_config_set_buffer_size(5);
    EXPECT_EQ(CONFIG_FILE_HEAD "<LogState>on</LogState>\n<BufferSize>5</BufferSize>\n\n<AdbLogState>off</AdbLogState>\n"
                               "<DplState>off</DplState>\n",
              tovak_config_text());
    // Empty lists are written as their tags, empty sequences not at all.
    ASSERT_EQ(0, load("# only a comment\n\n"));
    EXPECT_EQ(CONFIG_FILE_HEAD "<LogState>off</LogState>\n<BufferSize>0</BufferSize>\n\n<EventIDs>\n\n</EventIDs>\n"
                               "\n<LogCodes>\n\n</LogCodes>\n\n<MessageLevels>\n\n</MessageLevels>\n"
                               "\n<AdbLogState>off</AdbLogState>\n<DplState>off</DplState>\n\n<IfIDs>\n\n</IfIDs>\n",
              tovak_config_text());
    // The interface ids are written under the events' condition.
    tovak_config_locked()->events.reset();
    EXPECT_EQ(std::string::npos, tovak_config_text().find("IfIDs"));
}

TEST_F(ConfigFile, UnreadableFileChangesOnlyThePath)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    // A FIFO would block and a device never end: neither is read.
    for (std::string path : { dir.path() + "/missing", dir.path(), fifo, std::string("/dev/zero"), std::string() }) {
        EXPECT_EQ(-1, tovak_config_load_file(path.c_str())) << path;
        EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, tovak_config_text()) << path;
        EXPECT_EQ(path, tovak_config_locked()->path);
    }
}

TEST_F(ConfigFile, ModemRangesSurviveLoadsAndBecomeTheLimits)
{
    {
        tovak_config_locked c;
        c->event_id_count = 1000;
        c->log_last_items = { 11, 12 };
        c->msg_ssid_ranges = { 20u << 16 | 10u };
    }
    ASSERT_EQ(0, load(DEFAULT_CONFIG_TEXT));
    tovak_config_locked c;
    EXPECT_EQ(1000, c->events->limit);
    EXPECT_EQ(12u, c->log_codes->last_items[1]);
    ASSERT_EQ(1u, c->messages->range_count);
    EXPECT_EQ(20, c->messages->ranges[0].last);
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, tovak_config_text());
}

// Any bytes load, and what is written from them reads back to itself.
TEST_F(ConfigFile, AnyBytesLoadWithoutHarm)
{
    const std::string pieces[] = { "<LogState>", "</LogState>", "<BufferSize>", "</BufferSize>", "<EventIDs>",
                                   "</EventIDs>", "<LogCodes>", "</MessageLevels>", "<MessageLevels>", "<IfIDs>",
                                   "<Category>", "</AdbSizeInfo>", "<AdbSizeInfo>", "on", "0x", "0X", "/", ",",
                                   " ", "\n", "\r", "#", "<", "</", "99999999999", "-", "12" };
    std::mt19937 rng(20121221);
    for (int round = 0; round < 300; round++) {
        std::string text;
        for (size_t i = rng() % 200; i > 0; i--) {
            if (rng() % 3 == 0)
                text.push_back(char(rng()));
            else
                text += pieces[rng() % std::size(pieces)];
        }
        for (bool as_file : { true, false }) {
            if (as_file)
                ASSERT_EQ(0, load(text));
            else
                tovak_config_load_text(text.c_str());
            std::string written = tovak_config_text();
            ASSERT_EQ(0, load(written)) << round;
            ASSERT_EQ(written, tovak_config_text()) << round;
        }
    }
    // Sizes and shapes that a quadratic or unbounded reader would choke on.
    std::string digits, junk, comments;
    for (int i = 0; i < 400000; i++)
        digits += std::to_string(i % 70000) + ",";
    for (int i = 0; i < (4 << 20); i++)
        junk.push_back(char(rng()));
    for (int i = 0; i < 300000; i++)
        comments += "# <EventIDs>1</EventIDs>\n";
    const std::string big[] = {
        "<EventIDs>" + digits,
        "<EventIDs>\n" + digits + "\n</EventIDs>",
        junk,
        std::string(1 << 20, '\n') + "<EventIDs>1</EventIDs>",
        std::string(1 << 20, '#') + "\n" + comments,
        std::string(300000, '<') + "/EventIDs>" + std::string(300000, '>'),
        "<EventIDs><LogCodes><MessageLevels><IfIDs><Category><AdbSizeInfo>",
    };
    for (const std::string& text : big) {
        ASSERT_EQ(0, load(text));
        expect_round_trip(text.substr(0, 20));
        if (&text < big + 2) {
            EXPECT_EQ(65536u, tovak_config_locked()->events->ids.size());
        }
    }
}

TEST_F(ConfigFile, CurrentFileAndReload)
{
    if (access("/data/property", F_OK) == 0)
        GTEST_SKIP() << "this host has a /data/property of its own";
    // Reload takes the name as it stands, not from the property: empty, it
    // opens nothing and changes nothing.
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    EXPECT_EQ(0, tovak_config_reload());
    EXPECT_EQ(50000000u, tovak_config_get_buffer_size());
    EXPECT_EQ("", tovak_config_locked()->path);
    EXPECT_STREQ("/sdcard/dm.cfg", tovak_config_get_file());
    ASSERT_TRUE(write_file(in, "<BufferSize>9</BufferSize>"));
    strcpy(tovak_config_locked().file_name(), in.c_str());
    EXPECT_EQ(0, tovak_config_reload());
    EXPECT_EQ(9u, tovak_config_get_buffer_size());
    EXPECT_EQ(in, tovak_config_get_file());
}

} // namespace
