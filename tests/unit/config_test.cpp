// dm.cfg: what each element and list reads as, the file written back, any
// bytes at all, the item sets, and saves that stay whole whatever happens.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "config/tovak_config.h"
#include "config/tovak_config_lists.h"
#include "sim_device.h"

namespace {

#define FILE_HEAD                                    \
    "#KVD Configuration File\n#\n#history\n"         \
    "#ver. 1.2 20120716 rtkan add dpl information\n" \
    "#ver. 1.1 20120521 rtkan add LogState and BufferSize\n\n"

// The factory dm.cfg, which is also the built-in default as the daemon
// writes it.
const std::string FACTORY_FILE = read_file(TOVAK_SOURCE_DIR "/etc/dm.cfg");

class Config : public ::testing::Test {
protected:
    void SetUp() override { *tovak_config_locked() = tovak_config{}; }
    void TearDown() override { *tovak_config_locked() = tovak_config{}; }

    // Loads text as dm.cfg and returns the file saved from it.
    std::string round_trip(const std::string& text)
    {
        EXPECT_TRUE(write_file(in, text));
        EXPECT_EQ(0, tovak_config_load_file(in.c_str()));
        tovak_config_save_file(out.c_str());
        return read_file(out);
    }

    TempDir dir;
    std::string in = dir.path() + "/in.cfg";
    std::string out = dir.path() + "/out.cfg";
};

TEST_F(Config, DefaultTextIsWrittenAsTheFactoryFileAndReadsBack)
{
    ASSERT_EQ(0u, FACTORY_FILE.rfind(FILE_HEAD "<LogState>", 0)) << "etc/dm.cfg missing or not as written";
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    tovak_config_save_file(out.c_str());
    EXPECT_EQ(FACTORY_FILE, read_file(out));
    EXPECT_EQ(FACTORY_FILE, round_trip(FACTORY_FILE));
}

// The factory item files name, in their first column, exactly the items of
// the default lists.
TEST_F(Config, FactoryItemFilesNameTheDefaultLists)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    struct List {
        const char* file;
        std::set<uint32_t> items;
    };
    std::vector<List> lists;
    {
        tovak_config_locked c;
        std::set<uint32_t> ssids;
        for (const auto& entry : c->messages->masks)
            ssids.insert(entry.first);
        lists = {
            { "EventID.txt", { c->events->ids.begin(), c->events->ids.end() } },
            { "LogItem.txt", { c->log_codes->codes.begin(), c->log_codes->codes.end() } },
            { "MessageLevel.txt", ssids },
        };
    }
    for (const List& l : lists) {
        std::istringstream text(read_file(std::string(TOVAK_SOURCE_DIR "/etc/") + l.file));
        std::set<uint32_t> named;
        for (std::string line; std::getline(text, line);)
            named.insert(uint32_t(std::stoul(line.substr(0, line.find(' ')), nullptr, line[1] == 'x' ? 16 : 10)));
        EXPECT_FALSE(named.empty()) << l.file;
        EXPECT_EQ(l.items, named) << l.file;
    }
}

// What is left out and what is written empty: a record never loaded has no
// lists (and so no IfIDs), an empty file makes every list, empty; empty
// sequences are left out either way.
TEST_F(Config, AbsentAndEmptyElementsInTheWrittenLayout)
{
    const std::string scalars = FILE_HEAD "<LogState>off</LogState>\n<BufferSize>0</BufferSize>\n";
    tovak_config_save_file(out.c_str());
    EXPECT_EQ(scalars + "\n<AdbLogState>off</AdbLogState>\n<DplState>off</DplState>\n", read_file(out));

    EXPECT_EQ(scalars + "\n<EventIDs>\n\n</EventIDs>\n\n<LogCodes>\n\n</LogCodes>\n"
                        "\n<MessageLevels>\n\n</MessageLevels>\n\n<AdbLogState>off</AdbLogState>\n"
                        "<DplState>off</DplState>\n\n<IfIDs>\n\n</IfIDs>\n",
              round_trip(""));
}

// Each file, as read, shows in what is written back.
TEST_F(Config, ElementsAndListGrammars)
{
    struct Case {
        const char* file;
        const char* written;
    };
    // clang-format off
    const Case cases[] = {
        { "<LogState>on</LogState>",                    "<LogState>on</LogState>" },
        { "<LogState> on</LogState>",                   "<LogState>off</LogState>" },
        { "<LogState>ON</LogState>",                    "<LogState>off</LogState>" },
        { "<DplState>on</DplState><DplState>off</DplState>", "<DplState>on</DplState>" },
        { " #<LogState>on</LogState>",                  "<LogState>off</LogState>" },
        { "<LogState>on</LogState> # note",             "<LogState>on</LogState>" },
        { "<LogState>o#x\nn</LogState>",                "<LogState>on</LogState>" },
        { "<BufferSize>0x1000</BufferSize>",            "<BufferSize>0</BufferSize>" },
        { "<BufferSize>0x1000 0X</BufferSize>",         "<BufferSize>4096</BufferSize>" },
        { "<BufferSize> 12MB</BufferSize>",             "<BufferSize>12</BufferSize>" },
        { "<BufferSize>3000000000</BufferSize>",        "<BufferSize>-1294967296</BufferSize>" },
        { "<BufferSize>99999999999</BufferSize>",       "<BufferSize>-1</BufferSize>" },
        // Lines join with nothing between them; no close tag takes the rest.
        { "<EventIDs>01498\n01499</EventIDs>",          "\n65535\n" },
        { "<EventIDs>\r\n1,\r\n\r\n2\r\n</EventIDs>\r\n", "\n00001, 00002\n" },
        { "<EventIDs>\n1, # one\n#5,\n2\n</EventIDs>",  "\n00001, 00002\n" },
        { "<EventIDs>1,\n2,\n<IfIDs>3</IfIDs>",         "\n00000, 00001, 00002\n" },
        { "</EventIDs><EventIDs>4 5\n6</EventIDs>",     "\n00004, 00005\n" },
        { "<EventIDs>  00000,00256\t00257\n,\r\v\f  65535,+7,-65535,70000,0x10,x</EventIDs>",
          "\n00000, 00001, 00007, 00256, 00257, 65535\n" },
        { "<LogCodes>0x412F,  713F ,0xb061,12,12abc</LogCodes>", "\n0x0012, 0x412f, 0x713f, 0xb061, 0xffff\n" },
        { "<LogCodes>0x100X</LogCodes>",                "\n0x0000\n" },
        { "<MessageLevels>03010/04 00005/03 00005/04 00005/03 9</MessageLevels>", "\n00005/03,00005/04,03010/04\n" },
        { "<MessageLevels>5/31 6/32 7/-1 0x05/0x03 70000/1</MessageLevels>", "\n00000/00,00005/31,65535/01\n" },
        { "<MessageLevels>0x50X/0x2X0X</MessageLevels>", "\n00080/02\n" },
        { "<IfIDs>19 1,15\t1</IfIDs><EventIDs></EventIDs>", "\n1, 15, 19\n" },
        { "<Category>1, 1,,0,-1,70000</Category>",      "\n<Category>\n1,1,0,65535,65535\n</Category>\n" },
        { "<AdbSizeInfo> 10000000 ,5,,3000000000,-1</AdbSizeInfo>", "\n10000000,5,3000000000,4294967295\n" },
    };
    // clang-format on
    for (const Case& c : cases)
        EXPECT_NE(std::string::npos, round_trip(c.file).find(c.written)) << c.file << "\n" << read_file(out);
}

// A modem that gave no message ranges leaves the built-in ones, every one.
TEST(ConfigLists, MessageRangesFallBackToAllTheBuiltInOnes)
{
    const auto list = tovak_msg_list_create("00005/03", {});
    ASSERT_EQ(uint32_t(TOVAK_MSG_RANGE_BUILTIN_COUNT), list->range_count);
    EXPECT_EQ(0, memcmp(list->ranges, TOVAK_MSG_RANGES_BUILTIN, sizeof TOVAK_MSG_RANGES_BUILTIN));
}

// A file is read in chunks: its last byte counts wherever the chunks end, and
// "on" reads as 1 exactly.
TEST_F(Config, FilesEndingAtEveryChunkEdgeReadWhole)
{
    const std::string tail = "<DplState>on</DplState>";
    for (size_t size : { tail.size(), size_t(8191), size_t(8192), size_t(8193), size_t(16385) }) {
        const std::string text = size > tail.size() ? std::string("#").append(size - tail.size() - 2, 'x') + "\n" : "";
        round_trip(text + tail);
        EXPECT_EQ(1u, tovak_config_get_dpl_state()) << size;
    }
    round_trip("<LogState>on</LogState><AdbLogState>on</AdbLogState>");
    EXPECT_EQ(1u, tovak_config_get_log_state());
    EXPECT_EQ(1u, tovak_config_get_adblog_state());
}

// Any bytes load, and what is written from them reads back to itself.
TEST_F(Config, AnyBytesLoadAndTheirSavedFormIsStable)
{
    const std::string pieces[] = { "<LogState>",
                                   "</LogState>",
                                   "<BufferSize>",
                                   "</BufferSize>",
                                   "<EventIDs>",
                                   "</EventIDs>",
                                   "<LogCodes>",
                                   "</MessageLevels>",
                                   "<MessageLevels>",
                                   "<IfIDs>",
                                   "<Category>",
                                   "</AdbSizeInfo>",
                                   "<AdbSizeInfo>",
                                   "on",
                                   "0x",
                                   "0X",
                                   "/",
                                   ",",
                                   " ",
                                   "\n",
                                   "\r",
                                   "#",
                                   "<",
                                   "</",
                                   "99999999999",
                                   "-",
                                   "12" };
    std::mt19937 rng(20121221);
    std::vector<std::string> texts;
    for (int round = 0; round < 300; round++) {
        std::string text;
        for (size_t i = rng() % 200; i > 0; i--)
            text += rng() % 3 == 0 ? std::string(1, char(rng())) : pieces[rng() % std::size(pieces)];
        texts.push_back(text);
    }
    // Shapes that a quadratic reader would choke on, as large as a file
    // that is read may be.
    std::string digits, junk;
    for (int i = 0; i < 400000; i++)
        digits += std::to_string(i % 70000) + ",";
    for (int i = 0; i < TOVAK_CONFIG_MAX_SIZE; i++)
        junk.push_back(char(rng()));
    texts.push_back("<EventIDs>" + digits.substr(0, TOVAK_CONFIG_MAX_SIZE - 10));
    texts.push_back(junk);
    texts.push_back(std::string(1 << 19, '\n') + std::string((1 << 19) - 32, '#') + "<EventIDs>1</EventIDs>");
    texts.push_back(std::string(300000, '<') + "/EventIDs>" + std::string(300000, '>'));
    for (const std::string& text : texts) {
        std::string written = round_trip(text);
        ASSERT_EQ(0u, written.rfind(FILE_HEAD, 0));
        ASSERT_EQ(written, round_trip(written)) << text.substr(0, 80);
    }
    EXPECT_EQ(0, tovak_config_load_text(("<EventIDs>" + digits).c_str()));
    EXPECT_EQ(65536u, tovak_config_locked()->events->ids.size());
}

using Add = int (*)(uint32_t);
using Get = int (*)(uint16_t**, int*);

std::vector<uint16_t> listed(Get get)
{
    uint16_t* ids = nullptr;
    int n = 0;
    EXPECT_EQ(0, get(&ids, &n));
    std::vector<uint16_t> v(ids, ids + std::max(n, 0));
    free(ids);
    return v;
}

TEST_F(Config, ItemSetsKeepOneOfEachInOrderAndNeedAParsedFile)
{
    struct Kind {
        const char* name;
        Add add, rm;
        Get get;
    };
    const Kind kinds[] = {
        { "events", tovak_config_add_event, tovak_config_rm_event, tovak_config_get_events },
        { "log codes", tovak_config_add_log, tovak_config_rm_log, tovak_config_get_logs },
        { "interfaces", tovak_config_add_dpl_if, tovak_config_rm_dpl_if, tovak_config_get_dpl_ifs },
    };
    for (const Kind& k : kinds) {
        uint16_t* ids = nullptr;
        int n = 0;
        EXPECT_EQ(-1, k.add(1)) << k.name;
        EXPECT_EQ(-1, k.rm(1)) << k.name;
        EXPECT_EQ(-1, k.get(&ids, &n)) << k.name;
        EXPECT_EQ(-1, n) << k.name;
        EXPECT_TRUE(k.get(nullptr, &n) == -1 && k.get(&ids, nullptr) == -1) << k.name;
    }
    tovak_msg_entry* entries = nullptr;
    int n = 0;
    EXPECT_EQ(-1, tovak_config_add_msg(5, 1));
    EXPECT_EQ(-1, tovak_config_get_msgs(&entries, &n));
    EXPECT_EQ(-1, n);

    tovak_config_load_text("");
    for (const Kind& k : kinds) {
        EXPECT_EQ(std::vector<uint16_t>{}, listed(k.get)) << k.name;
        for (uint32_t id : { 5u, 3u, 0x10004u, 5u, 9u })
            EXPECT_EQ(0, k.add(id)) << k.name;
        EXPECT_EQ(0, k.rm(9));
        EXPECT_EQ(0, k.rm(7)); // never added
        EXPECT_EQ((std::vector<uint16_t>{ 3, 4, 5 }), listed(k.get)) << k.name;
    }
    EXPECT_EQ(0, tovak_config_add_msg(0x10005, 0x18));
    EXPECT_EQ(0, tovak_config_add_msg(5, 0x10001)); // replaces, never merges
    EXPECT_EQ(0, tovak_config_add_msg(2, 0));
    EXPECT_EQ(0, tovak_config_rm_msg(3));
    ASSERT_EQ(0, tovak_config_get_msgs(&entries, &n));
    ASSERT_EQ(2, n);
    EXPECT_EQ(2, entries[0].ssid);
    EXPECT_EQ(5, entries[1].ssid);
    EXPECT_EQ(0x10001u, entries[1].mask);
    free(entries);

    const uint32_t sizes[] = { 1, 2 };
    EXPECT_EQ(0, tovak_config_set_adblog_sizes(sizes, 2));
    EXPECT_EQ(-1, tovak_config_set_adblog_size(2, 7));
    EXPECT_EQ(0, tovak_config_set_adblog_size(1, 7));
    EXPECT_NE(std::string::npos, tovak_config_text().find("\n1,7\n"));
}

// A file over the limit, or not a regular file, is not read at all: the load
// fails as for a file that can't be opened, whatever its size claims. No
// load leaves its descriptor open.
TEST_F(Config, FilesOverTheLimitOrNotRegularAreNotRead)
{
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto fds = open_descriptors();
    const std::string on = "<LogState>on</LogState>\n#";
    for (size_t size : { size_t(TOVAK_CONFIG_MAX_SIZE), size_t(TOVAK_CONFIG_MAX_SIZE) + 1 }) {
        SCOPED_TRACE(size);
        *tovak_config_locked() = tovak_config{};
        ASSERT_TRUE(write_file(in, on + std::string(size - on.size(), '#')));
        const bool fits = size <= TOVAK_CONFIG_MAX_SIZE;
        EXPECT_EQ(fits ? 0 : -1, tovak_config_load_file(in.c_str()));
        EXPECT_EQ(fits ? 1u : 0u, tovak_config_get_log_state());
        EXPECT_EQ(in, tovak_config_locked()->path);
    }
    EXPECT_EQ(-1, tovak_config_load_file(dir.path().c_str()));
    // A regular file whose first read fails reads as empty, once: a load
    // that read on would meet the alarm.
    alarm(10);
    EXPECT_EQ(0, tovak_config_load_file("/proc/self/mem"));
    alarm(0);
    EXPECT_EQ(fds, open_descriptors());
    // A regular file whose size says 0 and that reads on for megabytes.
    const char* big = "/proc/kallsyms";
    if (read_file(big).size() <= TOVAK_CONFIG_MAX_SIZE)
        GTEST_SKIP() << big << " is not over the limit here";
    tovak_config_load_text("<LogState>on</LogState>");
    EXPECT_EQ(-1, tovak_config_load_file(big));
    EXPECT_EQ(1u, tovak_config_get_log_state());
}

// A save interrupted at any moment leaves the old file or the new one, and
// the next save clears its temporary file.
TEST_F(Config, SigkillDuringSavesLeavesOneWholeFile)
{
    std::string texts[2] = { "<EventIDs>", "<LogState>on</LogState><LogCodes>" };
    for (int i = 0; i < 4000; i++) {
        texts[0] += std::to_string(i * 3) + ",";
        texts[1] += std::to_string(i * 5) + ",";
    }
    std::string files[2];
    for (int i = 0; i < 2; i++)
        files[i] = round_trip(texts[i]);
    tovak_config_save_file(in.c_str());
    std::mt19937 rng(4242);
    for (int round = 0; round < 30; round++) {
        int progress[2];
        ASSERT_EQ(0, pipe(progress));
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0;; i ^= 1) {
                tovak_config_load_text(texts[i].c_str());
                tovak_config_save_file(in.c_str());
                if (write(progress[1], "s", 1) != 1)
                    _exit(1);
            }
        }
        close(progress[1]);
        // A few saves, then a kill at a varied moment of the next.
        char c;
        bool saving = true;
        for (unsigned i = 1 + rng() % 3; i > 0 && saving; i--)
            saving = read(progress[0], &c, 1) == 1;
        auto kill_at = std::chrono::steady_clock::now() + std::chrono::microseconds(rng() % 1500);
        while (std::chrono::steady_clock::now() < kill_at) {
        }
        kill(pid, SIGKILL);
        ASSERT_EQ(pid, waitpid(pid, nullptr, 0));
        close(progress[0]);
        ASSERT_TRUE(saving) << round;
        std::string on_disk = read_file(in);
        ASSERT_TRUE(on_disk == files[0] || on_disk == files[1]) << round << ": " << on_disk.size() << " bytes";
    }
    // The next save clears what the killed ones left beside the file.
    tovak_config_save_file(in.c_str());
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
        EXPECT_EQ(std::string::npos, e.path().filename().string().find(".tmp")) << e.path();
}

// An edit whose save has returned is in the file at the end, however the
// threads interleave; readers meanwhile see whole, ordered lists.
TEST_F(Config, ThreadsEditingAndSavingAtOnceLoseNoAcknowledgedEdit)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    const int writers = 6, edits = 40;
    std::atomic<bool> done{ false };
    std::atomic<int> bad_reads{ 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < writers + 2; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; t < writers && i < edits; i++) {
                uint32_t id = 20000 + uint32_t(t * 100 + i);
                tovak_config_add_event(id);
                tovak_config_add_msg(id, 1u << (i % 32));
                if (i % 2 == 1)
                    tovak_config_rm_event(id - 1);
                tovak_config_save_file(out.c_str());
            }
            while (t >= writers && !done) {
                std::vector<uint16_t> ids = listed(tovak_config_get_events);
                for (size_t i = 1; i < ids.size(); i++)
                    bad_reads += ids[i - 1] >= ids[i];
            }
        });
    }
    for (int t = 0; t < writers; t++)
        threads[size_t(t)].join();
    done = true;
    threads[writers].join();
    threads[writers + 1].join();
    EXPECT_EQ(0, bad_reads.load());

    ASSERT_EQ(0, tovak_config_load_file(out.c_str()));
    std::vector<uint16_t> ids = listed(tovak_config_get_events);
    for (int t = 0; t < writers; t++) {
        for (int i = 0; i < edits; i++) {
            uint16_t id = uint16_t(20000 + t * 100 + i);
            EXPECT_EQ(i % 2 == 1, std::count(ids.begin(), ids.end(), id) == 1) << id;
        }
    }
    EXPECT_EQ(14u + writers * edits / 2, ids.size());
}

} // namespace
