// dm.cfg as read and written: element extraction, comments, on/off and number
// values, the exact written layout, round trips, and bytes of any kind.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

#include "config/tovak_config.h"
#include "config_test_support.h"
#include "sim_device.h"

namespace {

class ConfigFile : public ::testing::Test {
protected:
    void SetUp() override { reset_config(); }
    void TearDown() override { reset_config(); }

    std::string file(const std::string& name) const { return dir.path() + "/" + name; }

    // Writes text to a file of its own and loads it.
    int load(const std::string& text)
    {
        std::string path = file("in.cfg");
        EXPECT_TRUE(write_file(path, text));
        return tovak_config_load_file(path.c_str());
    }

    TempDir dir;
};

std::vector<uint16_t> events()
{
    tovak_config_locked c;
    return c->events ? std::vector<uint16_t>(c->events->ids.begin(), c->events->ids.end()) : std::vector<uint16_t>{};
}

TEST_F(ConfigFile, DefaultTextGivesTheBuiltInSettings)
{
    EXPECT_EQ(0, tovak_config_load_text(DEFAULT_CONFIG_TEXT));
    ConfigSnapshot s = config_snapshot();
    ASSERT_TRUE(s.has_lists);
    EXPECT_EQ(0u, s.log_state);
    EXPECT_EQ(50000000u, s.buffer_size);
    EXPECT_EQ(0u, s.dpl_state);
    EXPECT_EQ((std::vector<uint16_t>{ 1498, 1499, 1501, 1503, 1606, 1607, 1608, 1611, 1612, 1613, 1685, 1970, 1971,
                                      1972 }),
              s.events);
    EXPECT_EQ((std::vector<uint16_t>{ 0x412f, 0x713f, 0x7140, 0x7143, 0x7144, 0xb061, 0xb062, 0xb0c0, 0xb0e2,
                                      0xb0e3, 0xb0ec, 0xb0ed, 0xb167, 0xb168, 0xb169, 0xb16a }),
              s.log_codes);
    std::map<uint16_t, uint32_t> masks;
    for (uint16_t ssid : { 5, 15, 20, 3006, 3007, 3008, 3010 })
        masks[ssid] = 0x18;
    EXPECT_EQ(masks, s.messages);
    EXPECT_EQ(0u, s.adblog_state);
    EXPECT_EQ((std::vector<uint32_t>{ 10000000, 10000000, 5000000, 20000000 }), s.sizes);
    EXPECT_EQ((std::vector<uint16_t>{ 1, 1, 0, 1 }), s.categories);
    EXPECT_EQ((std::vector<uint16_t>{ 1, 15, 19 }), s.dpl_ifs);
    EXPECT_EQ(2166, s.event_limit);
    EXPECT_EQ(23u, s.msg_ranges.size());
}

TEST_F(ConfigFile, DefaultSavedGivesTheExactLayoutAndLoadsBack)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    ConfigSnapshot before = config_snapshot();
    std::string path = file("dm.cfg");
    EXPECT_EQ(0, tovak_config_save_file(path.c_str()));
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(path));

    reset_config();
    ASSERT_EQ(0, tovak_config_load_file(path.c_str()));
    EXPECT_EQ(before, config_snapshot());
}

TEST_F(ConfigFile, SavedRecordsLoadBackUnchanged)
{
    // Extremes of every field, written by the daemon and read again.
    const char* const texts[] = {
        DEFAULT_CONFIG_TEXT,
        "<LogState>on</LogState><DplState>on</DplState><AdbLogState>on</AdbLogState><BufferSize>4294967295</BufferSize>",
        "<BufferSize>3000000000</BufferSize><EventIDs>0 65535 1</EventIDs><LogCodes>0 ffff 0x1</LogCodes>"
        "<MessageLevels>0/0 0/31 65535/7 9/3</MessageLevels><IfIDs>65535,0</IfIDs>",
        "<Category>65535,0,0</Category><AdbSizeInfo>4294967295,0,3000000000</AdbSizeInfo>",
        "<BufferSize>2147483648</BufferSize><Category>,</Category><AdbSizeInfo>7</AdbSizeInfo>",
    };
    for (const char* text : texts) {
        reset_config();
        tovak_config_load_text(text);
        ConfigSnapshot before = config_snapshot();
        std::string written = tovak_config_text();
        std::string path = file("dm.cfg");
        tovak_config_save_file(path.c_str());
        reset_config();
        ASSERT_EQ(0, tovak_config_load_file(path.c_str())) << text;
        EXPECT_EQ(before, config_snapshot()) << text;
        EXPECT_EQ(written, tovak_config_text()) << text;
        EXPECT_EQ(0, read_file(path).rfind(std::string(CONFIG_FILE_HEAD), 0)) << text;
    }
}

TEST_F(ConfigFile, BufferSizeAbove2GiBIsWrittenSignedAndReadsBackTheSameBits)
{
    tovak_config_load_text("<BufferSize>3000000000</BufferSize>");
    EXPECT_NE(std::string::npos, tovak_config_text().find("\n<BufferSize>-1294967296</BufferSize>\n"));
    ASSERT_EQ(0, load(tovak_config_text()));
    EXPECT_EQ(3000000000u, tovak_config_get_buffer_size());
}

TEST_F(ConfigFile, MessageEntryWithMaskZeroIsLostOnTheRoundTrip)
{
    tovak_config_load_text("<EventIDs></EventIDs><MessageLevels>5/3, 6/40</MessageLevels>");
    EXPECT_EQ(2u, config_snapshot().messages.size());
    ASSERT_EQ(0, load(tovak_config_text()));
    EXPECT_EQ((std::map<uint16_t, uint32_t>{ { 5, 0x8 } }), config_snapshot().messages);
}

TEST_F(ConfigFile, HandWrittenFilesInMixedForms)
{
    struct Case {
        const char* name;
        std::string text;
        std::vector<uint16_t> events;
        std::vector<uint16_t> logs;
    };
    const Case cases[] = {
        { "runs of blanks", "<EventIDs>  00000,00256,00257,            01498</EventIDs>", { 0, 256, 257, 1498 }, {} },
        { "log codes over lines",
          "<LogCodes>\n12, 0x1009,0x1010,   0x1011,\n0x1012\n,0x1013\t\n</LogCodes>",
          {},
          { 0x12, 0x1009, 0x1010, 0x1011, 0x1012, 0x1013 } },
        // Lines join with nothing: "0x1011" and "0x1012" make one token.
        { "a line break alone does not separate",
          "<LogCodes>\n0x1011\n0x1012\n</LogCodes>",
          {},
          { 65535 } },
        { "CRLF lines", "<EventIDs>\r\n1,\r\n2\r\n</EventIDs>\r\n<LogCodes>a</LogCodes>\r\n", { 1, 2 }, { 0xa } },
        { "separator at line end joins", "<EventIDs>01498,\n01499</EventIDs>", { 1498, 1499 }, {} },
        { "no separator joins into one token", "<EventIDs>01498\n01499</EventIDs>", { 65535 }, {} },
        { "blank line between items", "<EventIDs>1,\n\n2,</EventIDs>", { 1, 2 }, {} },
        { "tags alone on their lines", "<EventIDs>\n7\n</EventIDs>", { 7 }, {} },
        { "comment inside a list", "<EventIDs>\n1, # one\n# 5,\n2\n</EventIDs>", { 1, 2 }, {} },
        // The rest of the file joins the value, and "<LogCodes>3..." reads as 0.
        { "close tag missing", "<EventIDs>1,\n2,\n<LogCodes>3</LogCodes>", { 0, 1, 2 }, { 3 } },
        { "close before open on a line", "</EventIDs><EventIDs>4 5\n6</EventIDs>", { 4, 5 }, {} },
        { "second element ignored", "<EventIDs>1</EventIDs>\n<EventIDs>2</EventIDs>", { 1 }, {} },
        { "first occurrence on the line", "<EventIDs>1</EventIDs><EventIDs>2</EventIDs>", { 1 }, {} },
        { "tag split by a line break", "<Event\nIDs>1</EventIDs>", {}, {} },
    };
    for (const Case& c : cases) {
        reset_config();
        ASSERT_EQ(0, load(c.text)) << c.name;
        ConfigSnapshot s = config_snapshot();
        EXPECT_EQ(c.events, s.events) << c.name;
        EXPECT_EQ(c.logs, s.log_codes) << c.name;
    }
}

TEST_F(ConfigFile, CommentsDropOrCutLines)
{
    struct Case {
        const char* text;
        uint32_t log_state;
    };
    const Case cases[] = {
        { "<LogState>on</LogState>", 1 },
        { "#<LogState>on</LogState>", 0 },
        { "#\n<LogState>on</LogState>", 1 },
        { "<LogState>on</LogState> # note", 1 },
        { "<LogState>on</LogState>#", 1 },
        { " #<LogState>on</LogState>", 0 },
        { "<LogState>on#</LogState>", 1 },
        { "<LogState>\non\n</LogState>", 1 },
        { "<LogState>\non \n</LogState>", 0 },
        { "<LogState>o#x\nn</LogState>", 1 },
        { "#<LogState>off</LogState>\n<LogState>on</LogState>", 1 },
    };
    for (const Case& c : cases) {
        ASSERT_EQ(0, load(c.text)) << c.text;
        EXPECT_EQ(c.log_state, tovak_config_get_log_state()) << c.text;
    }
    // Text held in memory has no comments.
    tovak_config_load_text("#<LogState>on</LogState>");
    EXPECT_EQ(1u, tovak_config_get_log_state());
}

TEST_F(ConfigFile, OnIsExactlyOn)
{
    struct Case {
        const char* value;
        uint32_t state;
    };
    const Case cases[] = { { "on", 1 }, { " on", 0 }, { "on ", 0 }, { "ON", 0 }, { "On", 0 },
                           { "", 0 },   { "1", 0 },   { "off", 0 }, { "onn", 0 } };
    for (const Case& c : cases) {
        std::string v = c.value;
        tovak_config_load_text(("<LogState>" + v + "</LogState><DplState>" + v + "</DplState><AdbLogState>" + v +
                                "</AdbLogState>")
                                   .c_str());
        EXPECT_EQ(c.state, tovak_config_get_log_state()) << v;
        EXPECT_EQ(c.state, tovak_config_get_dpl_state()) << v;
        EXPECT_EQ(c.state, tovak_config_get_adblog_state()) << v;
    }
}

TEST_F(ConfigFile, BufferSizeIsHexadecimalOnlyWithBothPrefixes)
{
    struct Case {
        const char* text;
        uint32_t size;
    };
    const Case cases[] = {
        { "<BufferSize>50000000</BufferSize>", 50000000 },
        { "<BufferSize>  \t123</BufferSize>", 123 },
        { "<BufferSize>0x1000</BufferSize>", 0 },
        { "<BufferSize>0X1000</BufferSize>", 0 },
        { "<BufferSize>0x1000 0X</BufferSize>", 4096 },
        { "<BufferSize>12MB</BufferSize>", 12 },
        { "<BufferSize>-1</BufferSize>", 0xffffffffu },
        { "<BufferSize>99999999999</BufferSize>", 0xffffffffu },
        { "<BufferSize>abc</BufferSize>", 0 },
        { "<BufferSize></BufferSize>", 0 },
        { "<LogState>on</LogState>", 0 },
    };
    for (const Case& c : cases) {
        tovak_config_set_buffer_size(777);
        tovak_config_load_text(c.text);
        EXPECT_EQ(c.size, tovak_config_get_buffer_size()) << c.text;
    }
}

TEST_F(ConfigFile, OnlyTheFirstDplStateCounts)
{
    tovak_config_load_text("<DplState>on</DplState><DplState>off</DplState>");
    EXPECT_EQ(1u, tovak_config_get_dpl_state());
    tovak_config_load_text("<DplState>off</DplState><DplState>on</DplState>");
    EXPECT_EQ(0u, tovak_config_get_dpl_state());
}

TEST_F(ConfigFile, FileOfCommentsAndBlanksGivesEmptySettings)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    ASSERT_EQ(0, load("#KVD Configuration File\n\n# <LogState>on</LogState>\n\n\n"));
    ConfigSnapshot s = config_snapshot();
    ASSERT_TRUE(s.has_lists);
    EXPECT_TRUE(s.events.empty() && s.log_codes.empty() && s.messages.empty() && s.dpl_ifs.empty());
    EXPECT_TRUE(s.categories.empty() && s.sizes.empty());
    EXPECT_EQ(0u, s.log_state | s.dpl_state | s.adblog_state | s.buffer_size);
    // Empty lists that exist are written as their tags; empty sequences not at all.
    std::string expected = std::string(CONFIG_FILE_HEAD) +
                           "<LogState>off</LogState>\n<BufferSize>0</BufferSize>\n"
                           "\n<EventIDs>\n\n</EventIDs>\n"
                           "\n<LogCodes>\n\n</LogCodes>\n"
                           "\n<MessageLevels>\n\n</MessageLevels>\n"
                           "\n<AdbLogState>off</AdbLogState>\n"
                           "<DplState>off</DplState>\n"
                           "\n<IfIDs>\n\n</IfIDs>\n";
    EXPECT_EQ(expected, tovak_config_text());
}

TEST_F(ConfigFile, WriterFollowsItsConditions)
{
    // Before any parse: no lists, so only the states and the comments.
    tovak_config_set_log_state(1);
    tovak_config_set_dpl_state(1);
    tovak_config_set_adblog_state(1);
    tovak_config_set_buffer_size(5);
    std::string head = CONFIG_FILE_HEAD;
    EXPECT_EQ(head + "<LogState>on</LogState>\n<BufferSize>5</BufferSize>\n\n<AdbLogState>on</AdbLogState>\n"
                     "<DplState>on</DplState>\n",
              tovak_config_text());

    // The interface ids go with the events test, not their own.
    tovak_config_load_text("<EventIDs>1</EventIDs><IfIDs>4</IfIDs>");
    {
        tovak_config_locked c;
        c->events.reset();
    }
    EXPECT_EQ(std::string::npos, tovak_config_text().find("<IfIDs>"));
    tovak_config_load_text("<EventIDs>1</EventIDs><IfIDs>4</IfIDs>");
    {
        tovak_config_locked c;
        c->dpl_ifs.reset();
    }
    EXPECT_NE(std::string::npos, tovak_config_text().find("<DplState>off</DplState>\n\n<IfIDs>\n\n</IfIDs>\n"));
}

TEST_F(ConfigFile, UnreadableFileChangesOnlyThePath)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    ConfigSnapshot before = config_snapshot();
    std::string fifo = file("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    // A FIFO would block a reader and a device never end: neither is a file.
    for (std::string path : { file("missing.cfg"), dir.path(), fifo, std::string("/dev/zero"), std::string("") }) {
        EXPECT_EQ(-1, tovak_config_load_file(path.c_str())) << path;
        EXPECT_EQ(before, config_snapshot()) << path;
        tovak_config_locked c;
        EXPECT_EQ(path, c->path);
    }
}

TEST_F(ConfigFile, ModemRangesSurviveLoadsAndBecomeTheLimits)
{
    {
        tovak_config_locked c;
        c->ranges_known = 1;
        c->event_id_count = 1000;
        c->log_last_items = { 11, 12, 13 };
        c->msg_ssid_ranges = { (20u << 16) | 10u, (40u << 16) | 30u };
    }
    for (bool from_file : { true, false }) {
        if (from_file)
            ASSERT_EQ(0, load(DEFAULT_CONFIG_TEXT));
        else
            tovak_config_load_text(DEFAULT_CONFIG_TEXT);
        ConfigSnapshot s = config_snapshot();
        EXPECT_EQ(1000, s.event_limit);
        EXPECT_EQ((std::vector<uint32_t>{ 11, 12, 13, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }), s.log_last_items);
        EXPECT_EQ((std::vector<std::pair<uint16_t, uint16_t>>{ { 10, 20 }, { 30, 40 } }), s.msg_ranges);
    }
    // Never written to the file.
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, tovak_config_text());
    tovak_config_locked c;
    EXPECT_EQ(1, c->ranges_known);
    EXPECT_EQ(3u, c->log_last_items.size());
}

// What the writer makes of whatever was read must read back to itself.
// Saving costs two fsyncs, so loops may check through a plain write.
void expect_fixed_point(const std::string& path, const std::string& what, bool save = true)
{
    std::string first = tovak_config_text();
    if (save) {
        tovak_config_save_file(path.c_str());
        ASSERT_EQ(first, read_file(path)) << what;
    } else {
        ASSERT_TRUE(write_file(path, first));
    }
    ASSERT_EQ(0, tovak_config_load_file(path.c_str())) << what;
    EXPECT_EQ(first, tovak_config_text()) << what;
}

TEST_F(ConfigFile, AnyBytesLoadWithoutHarm)
{
    static const char* const pieces[] = {
        "<LogState>",    "</LogState>",  "<BufferSize>", "</BufferSize>", "<EventIDs>",    "</EventIDs>",
        "<LogCodes>",    "</LogCodes>",  "<MessageLevels>", "</MessageLevels>", "<IfIDs>", "</IfIDs>",
        "<Category>",    "</Category>",  "<AdbSizeInfo>", "</AdbSizeInfo>", "<DplState>", "<AdbLogState>",
        "on",            "off",          "0x",           "0X",            "/",            ",",
        " ",             "\n",           "\r",           "\t",            "#",            "<",
        ">",             "</",           "99999999999",  "-",             "12",           "0",
    };
    std::mt19937 rng(20121221);
    std::string in = file("fuzz.cfg");
    std::string out = file("out.cfg");
    for (int round = 0; round < 300; round++) {
        std::string text;
        size_t parts = rng() % 200;
        for (size_t i = 0; i < parts; i++) {
            if (rng() % 3 == 0) {
                for (unsigned n = rng() % 8; n > 0; n--)
                    text.push_back(char(rng() % 256));
            } else {
                text += pieces[rng() % (sizeof pieces / sizeof *pieces)];
            }
        }
        ASSERT_TRUE(write_file(in, text));
        ASSERT_EQ(0, tovak_config_load_file(in.c_str())) << round;
        expect_fixed_point(out, "file round " + std::to_string(round), round % 50 == 0);
        tovak_config_load_text(text.c_str());
        expect_fixed_point(out, "text round " + std::to_string(round), false);
    }
}

TEST_F(ConfigFile, HugeAndUnbalancedInputsLoad)
{
    std::string digits;
    for (int i = 0; i < 400000; i++)
        digits += std::to_string(i % 70000) + ",";
    std::string comments;
    for (int i = 0; i < 300000; i++)
        comments += "# <EventIDs>1</EventIDs>\n";
    std::string junk;
    std::mt19937 rng(5);
    for (int i = 0; i < (4 << 20); i++)
        junk.push_back(char(rng() % 256));
    struct Case {
        const char* name;
        std::string text;
        size_t events;
    };
    const Case cases[] = {
        { "a list of megabytes on one line, never closed", "<EventIDs>" + digits, 65536 },
        { "a list of megabytes closed on a later line", "<EventIDs>\n" + digits + "\n</EventIDs>", 65536 },
        { "megabytes of binary junk", junk, 0 },
        { "a million empty lines", std::string(1 << 20, '\n') + "<EventIDs>1</EventIDs>", 1 },
        { "a line of a megabyte of comment marks", std::string(1 << 20, '#') + "\n<EventIDs>2</EventIDs>", 1 },
        { "many comment lines", comments + "<EventIDs>2</EventIDs>", 1 },
        { "a close tag after a run of brackets", std::string(300000, '<') + "/EventIDs>", 0 },
        // The other tags make one token of the events, which reads as 0.
        { "every tag opened, none closed", "<EventIDs><LogCodes><MessageLevels><IfIDs><Category><AdbSizeInfo>", 1 },
    };
    std::string out = file("out.cfg");
    for (const Case& c : cases) {
        reset_config();
        ASSERT_EQ(0, load(c.text)) << c.name;
        EXPECT_EQ(c.events, config_snapshot().events.size()) << c.name;
        expect_fixed_point(out, c.name);
    }
    // Many lines: each line feed splits the value, so the list is one long
    // run of digits per line, as written.
    std::string lines;
    for (int i = 0; i < 200000; i++)
        lines += std::to_string(i % 60000) + ",\n";
    ASSERT_EQ(0, load("<EventIDs>\n" + lines + "</EventIDs>"));
    EXPECT_EQ(60000u, events().size());
}

TEST_F(ConfigFile, CurrentFileComesFromThePropertyOrTheDefault)
{
    if (access("/data/property", F_OK) == 0)
        GTEST_SKIP() << "this host has a /data/property of its own";
    EXPECT_STREQ("/sdcard/dm.cfg", tovak_config_get_file());
    // Filled once; later calls read the buffer.
    {
        tovak_config_locked c;
        strcpy(c.file_name(), "/data/x.cfg");
    }
    EXPECT_STREQ("/data/x.cfg", tovak_config_get_file());
}

TEST_F(ConfigFile, ReloadUsesTheBufferAsItStands)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    // Empty buffer: nothing to open, nothing changes.
    EXPECT_EQ(0, tovak_config_reload());
    EXPECT_EQ(50000000u, tovak_config_get_buffer_size());
    std::string path = file("r.cfg");
    ASSERT_TRUE(write_file(path, "<BufferSize>9</BufferSize>"));
    {
        tovak_config_locked c;
        strcpy(c.file_name(), path.c_str());
    }
    EXPECT_EQ(0, tovak_config_reload());
    EXPECT_EQ(9u, tovak_config_get_buffer_size());
}

TEST_F(ConfigFile, SetFileRefusesNamesItCannotKeep)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    {
        tovak_config_locked c;
        strcpy(c.file_name(), "/sdcard/dm.cfg");
    }
    ConfigSnapshot before = config_snapshot();
    std::string long_name = file(std::string(91, 'n'));
    ASSERT_TRUE(write_file(long_name, "<LogState>on</LogState>"));
    for (const std::string& name : { long_name, std::string("/") + std::string(91, 'a'), std::string() }) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(-1, tovak_config_set_file(name.c_str())) << name;
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(std::string::npos, out.find(name.empty() ? "Critical Error: Missing Config File\n"
                                                            : "Critical Error: fail to save config file into "
                                                              "property system\n"))
            << out;
        EXPECT_STREQ("/sdcard/dm.cfg", tovak_config_get_file());
        EXPECT_EQ(before, config_snapshot());
    }
}

TEST_F(ConfigFile, InitFallsBackToTheDefaultText)
{
    // The start-up file is the device path, absent on a host.
    if (access("/data/media/0/dm.cfg", F_OK) == 0)
        GTEST_SKIP() << "this host has a /data/media/0/dm.cfg of its own";
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, tovak_config_init());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("Configuration File Loading Fail so load default config.\n"));
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, tovak_config_text());
    tovak_config_locked c;
    EXPECT_EQ("/data/media/0/dm.cfg", c->path);
}

} // namespace
