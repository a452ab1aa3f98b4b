// The capture-file library: the object's word layout, the ring and commit.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capture_ring.h"
#include "host_link.h"
#include "platform/syslog_capture.h"
#include "sim_device.h"

namespace {

std::vector<std::string> list_dir(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string ring_text(const CaptureRing& r)
{
    std::vector<uint8_t> v;
    EXPECT_TRUE(r.contents(&v));
    return std::string(v.begin(), v.end());
}

TEST(CaptureRing, KeepsTheNewestBytesAcrossWrapAround)
{
    TempDir tmp;
    CaptureRing r;
    ASSERT_TRUE(r.open(tmp.path() + "/rings/a.ring", 10));
    struct Step {
        std::string write;
        std::string kept;
    };
    const Step steps[] = {
        { "", "" },
        { "abc", "abc" },
        { "defghij", "abcdefghij" },       // exactly full
        { "k", "bcdefghijk" },             // first wrap
        { "lmnopq", "hijklmnopq" },        // across the end of the file
        { "0123456789ABC", "3456789ABC" }, // longer than the ring
        { "xyz", "6789ABCxyz" },
    };
    for (const Step& s : steps) {
        ASSERT_TRUE(r.write(s.write.data(), s.write.size()));
        EXPECT_EQ(s.kept, ring_text(r)) << "after " << s.write;
    }
    EXPECT_EQ(33u, r.total_written());
    struct stat st;
    ASSERT_EQ(0, stat(r.backing_path().c_str(), &st));
    EXPECT_LE(st.st_size, 10) << "the backing file never grows past the capacity";
}

TEST(CaptureRing, RefusesWhatItCannotDo)
{
    TempDir tmp;
    CaptureRing zero;
    EXPECT_FALSE(zero.open(tmp.path() + "/z.ring", 0));
    CaptureRing r;
    ASSERT_TRUE(r.open(tmp.path() + "/r.ring", 4));
    EXPECT_FALSE(r.open(tmp.path() + "/again.ring", 4)) << "opened once";
    CaptureRing twin;
    EXPECT_FALSE(twin.open(tmp.path() + "/r.ring", 4)) << "never shares a backing file";
    EXPECT_FALSE(r.write(nullptr, 3));
    CaptureRing closed;
    EXPECT_FALSE(closed.write("x", 1));
    {
        CaptureRing gone;
        ASSERT_TRUE(gone.open(tmp.path() + "/gone.ring", 4));
    }
    EXPECT_FALSE(file_exists(tmp.path() + "/gone.ring")) << "the backing file goes with the ring";
}

class SyslogLib : public ::testing::Test {
protected:
    void SetUp() override { sim_host_set_root(tmp.path()); }
    void TearDown() override { sim_host_set_root(""); }

    static int write(syslog_object* obj, const std::string& s)
    {
        auto* head = reinterpret_cast<syslog_object_head*>(obj);
        return head->write(obj, s.data(), uint32_t(s.size()));
    }
    static int commit(syslog_object* obj, const std::string& dir)
    {
        return reinterpret_cast<syslog_object_head*>(obj)->commit(obj, dir.c_str());
    }

    TempDir tmp;
};

TEST_F(SyslogLib, ObjectCarriesCommitInItsThirdWordAndWriteInItsFifth)
{
    syslog_object* obj = nullptr;
    ASSERT_NE(0, syslog_create2(&obj, 8, "adbmain", 1, 2));
    ASSERT_NE(nullptr, obj);
    // The way the daemon reaches them: machine words from the start.
    void** words = reinterpret_cast<void**>(obj);
    auto commit_fn = reinterpret_cast<syslog_commit_fn>(words[2]);
    auto write_fn = reinterpret_cast<syslog_write_fn>(words[4]);
    EXPECT_EQ(5, write_fn(obj, "hello", 5));
    EXPECT_EQ(6, write_fn(obj, " world", 6));
    std::string out = tmp.path() + "/sdcard/syslog/";
    ASSERT_NE(0, commit_fn(obj, out.c_str()));
    std::vector<std::string> files = list_dir(out);
    ASSERT_EQ(1u, files.size());
    EXPECT_TRUE(std::regex_match(files[0], std::regex(R"(adbmain_\d{8}_\d{6}\.log)"))) << files[0];
    EXPECT_EQ("lo world", read_file(out + files[0])) << "the newest capacity bytes, in order";
    // The ring lives under the device's /data.
    EXPECT_EQ(1u, list_dir(tmp.path() + "/data/local/syslog").size());
    syslog_destroy(&obj);
    EXPECT_EQ(nullptr, obj);
    EXPECT_TRUE(list_dir(tmp.path() + "/data/local/syslog").empty());
    syslog_destroy(&obj); // twice is harmless
    syslog_destroy(nullptr);
}

TEST_F(SyslogLib, CommitsAreNewFilesKeepTheRingAndNeedAUsableDirectory)
{
    syslog_object* obj = nullptr;
    ASSERT_NE(0, syslog_create2(&obj, 100, "adbradio", 1, 2));
    write(obj, "first");
    std::string out = tmp.path() + "/a/b/c";
    ASSERT_NE(0, commit(obj, out)) << "the directory is made when missing";
    write(obj, "+second");
    ASSERT_NE(0, commit(obj, out));
    std::vector<std::string> files = list_dir(out);
    ASSERT_EQ(2u, files.size());
    std::vector<std::string> texts = { read_file(out + "/" + files[0]), read_file(out + "/" + files[1]) };
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ((std::vector<std::string>{ "first", "first+second" }), texts);
    ASSERT_TRUE(write_file(tmp.path() + "/file", "x"));
    EXPECT_EQ(0, commit(obj, tmp.path() + "/file/sub"));
    EXPECT_EQ(0, commit(obj, ""));
    syslog_destroy(&obj);
}

TEST_F(SyslogLib, CreationRefusesBadArguments)
{
    using Case = std::pair<int, const char*>; // capacity, name
    for (Case c : { Case{ 0, "adbmain" }, Case{ -1, "adbmain" }, Case{ 10, nullptr }, Case{ 10, "" },
                    Case{ 10, "../escape" } }) {
        syslog_object* obj = reinterpret_cast<syslog_object*>(&c);
        EXPECT_EQ(0, syslog_create2(&obj, c.first, c.second, 1, 2)) << c.first << " " << (c.second ? c.second : "null");
        EXPECT_EQ(nullptr, obj) << "a failed creation clears the slot";
    }
    EXPECT_EQ(0, syslog_create2(nullptr, 10, "adbmain", 1, 2));
}

TEST_F(SyslogLib, WriterAndCommitterAtOnce)
{
    syslog_object* obj = nullptr;
    ASSERT_NE(0, syslog_create2(&obj, 4096, "adbsystem", 1, 2));
    std::string out = tmp.path() + "/out";
    std::thread writer([&] {
        std::string line(64, 'w');
        line.back() = '\n';
        for (int i = 0; i < 2000; i++)
            ASSERT_EQ(64, write(obj, line));
    });
    int commits = 0;
    for (int i = 0; i < 20; i++)
        commits += commit(obj, out) != 0;
    writer.join();
    EXPECT_EQ(20, commits);
    // Each committed file is whole lines: writes never interleave with a commit.
    for (const std::string& f : list_dir(out)) {
        std::string text = read_file(out + "/" + f);
        EXPECT_EQ(0u, text.size() % 64) << f;
    }
    syslog_destroy(&obj);
}

} // namespace
