// Saving dm.cfg: whole files only, whatever happens during the save (a full
// disk, a read-only directory, SIGKILL, other threads editing and saving).
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "config/tovak_config.h"
#include "config_test_support.h"
#include "sim_device.h"

namespace {

std::set<std::string> dir_entries(const std::string& dir)
{
    std::set<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr) {
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
            names.insert(e->d_name);
    }
    if (d)
        closedir(d);
    return names;
}

// Runs body in a child process and returns its exit status (-1 if it did
// not exit normally). The child never returns into the test.
int in_child(const std::function<int()>& body)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

#define CHILD_SKIP 77

class ConfigSave : public ::testing::Test {
protected:
    void SetUp() override
    {
        reset_config();
        path = dir.path() + "/dm.cfg";
    }
    void TearDown() override { reset_config(); }

    TempDir dir;
    std::string path;
};

TEST_F(ConfigSave, ReplacesTheFileAndLeavesNothingElse)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    // A temporary file left by an earlier crash is taken over.
    ASSERT_TRUE(write_file(dir.path() + "/.dm.cfg.tmp", "junk"));
    ASSERT_TRUE(write_file(path, "<LogState>on</LogState>"));
    EXPECT_EQ(0, tovak_config_save_file(path.c_str()));
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(path));
    EXPECT_EQ(std::set<std::string>{ "dm.cfg" }, dir_entries(dir.path()));
}

TEST_F(ConfigSave, KeepsTheModeOfAnExistingFileAndCreatesNewOnes0666)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    ASSERT_TRUE(write_file(path, "old"));
    ASSERT_EQ(0, chmod(path.c_str(), 0640));
    tovak_config_save_file(path.c_str());
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);

    // The daemon runs with umask 0.
    std::string fresh = dir.path() + "/new.cfg";
    mode_t old = umask(0);
    tovak_config_save_file(fresh.c_str());
    umask(old);
    ASSERT_EQ(0, stat(fresh.c_str(), &st));
    EXPECT_EQ(0666u, st.st_mode & 07777);
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(fresh));
}

TEST_F(ConfigSave, WritesThroughALink)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    ASSERT_EQ(0, mkdir((dir.path() + "/real").c_str(), 0755));
    std::string target = dir.path() + "/real/dm.cfg";
    ASSERT_TRUE(write_file(target, "old"));
    ASSERT_EQ(0, symlink("real/dm.cfg", path.c_str()));
    tovak_config_save_file(path.c_str());
    struct stat st;
    ASSERT_EQ(0, lstat(path.c_str(), &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(target));
    EXPECT_EQ(std::set<std::string>{ "dm.cfg" }, dir_entries(dir.path() + "/real"));
}

TEST_F(ConfigSave, PathsThatCannotBeWrittenAreLeftAlone)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    std::string sub = dir.path() + "/sub";
    ASSERT_EQ(0, mkdir(sub.c_str(), 0755));
    ASSERT_TRUE(write_file(sub + "/keep", "x"));
    for (const std::string& bad : { sub, sub + "/", dir.path() + "/missing/dm.cfg", std::string() }) {
        EXPECT_EQ(0, tovak_config_save_file(bad.c_str())) << bad;
        EXPECT_EQ(std::set<std::string>{ "keep" }, dir_entries(sub)) << bad;
        EXPECT_EQ(std::set<std::string>{ "sub" }, dir_entries(dir.path())) << bad;
    }
}

TEST_F(ConfigSave, FullDiskLeavesTheOldFileWhole)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    tovak_config_save_file(path.c_str());
    tovak_config_load_text("<EventIDs>1 2 3</EventIDs><LogState>on</LogState>");
    // A file size limit fails the write as a full disk would.
    int status = in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit = { 100, 100 };
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return CHILD_SKIP;
        if (tovak_config_save_file(path.c_str()) != 0)
            return 1;
        // Still serving.
        return tovak_config_add_event(4) == 0 ? 0 : 2;
    });
    if (status == CHILD_SKIP)
        GTEST_SKIP() << "cannot limit the file size here";
    EXPECT_EQ(0, status);
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(path));
    EXPECT_EQ(std::set<std::string>{ "dm.cfg" }, dir_entries(dir.path()));
}

TEST_F(ConfigSave, ReadOnlyDirectoryLeavesTheOldFileWhole)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    std::string ro = dir.path() + "/ro";
    ASSERT_EQ(0, mkdir(ro.c_str(), 0755));
    path = ro + "/dm.cfg";
    tovak_config_save_file(path.c_str());
    ASSERT_EQ(0, chmod(ro.c_str(), 0555));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    tovak_config_load_text("<LogState>on</LogState>");
    int status = in_child([&] {
        // Root writes anywhere: give the save an ordinary user.
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            return CHILD_SKIP;
        if (access(ro.c_str(), W_OK) == 0)
            return CHILD_SKIP;
        if (tovak_config_save_file(path.c_str()) != 0)
            return 1;
        return tovak_config_get_log_state() == 1 ? 0 : 2;
    });
    chmod(ro.c_str(), 0755);
    if (status == CHILD_SKIP)
        GTEST_SKIP() << "no way to make a directory read-only for this process";
    EXPECT_EQ(0, status);
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(path));
    EXPECT_EQ(std::set<std::string>{ "dm.cfg" }, dir_entries(ro));
}

// A saver killed at any moment leaves the file it had or the file it was
// writing, whole.
TEST_F(ConfigSave, SigkillDuringSavesLeavesOneWholeFile)
{
    // Two different contents, large enough that a kill often lands inside
    // the write.
    std::string a_text = "<LogState>off</LogState><EventIDs>";
    std::string b_text = "<LogState>on</LogState><BufferSize>7</BufferSize><LogCodes>";
    for (int i = 0; i < 4000; i++) {
        a_text += std::to_string(i * 3) + ",";
        b_text += std::to_string(i * 5) + ",";
    }
    a_text += "</EventIDs>";
    b_text += "</LogCodes><MessageLevels>1/1</MessageLevels>";
    tovak_config_load_text(a_text.c_str());
    const std::string a_file = tovak_config_text();
    tovak_config_load_text(b_text.c_str());
    const std::string b_file = tovak_config_text();
    ASSERT_NE(a_file, b_file);
    tovak_config_save_file(path.c_str());

    std::mt19937 rng(4242);
    for (int round = 0; round < 30; round++) {
        int progress[2];
        ASSERT_EQ(0, pipe(progress));
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(progress[0]);
            for (;;) {
                for (const std::string* text : { &a_text, &b_text }) {
                    tovak_config_load_text(text->c_str());
                    tovak_config_save_file(path.c_str());
                    if (write(progress[1], "s", 1) != 1)
                        _exit(1);
                }
            }
        }
        close(progress[1]);
        // Let a few saves finish, then kill at a varied moment of the next.
        unsigned saves = 1 + rng() % 3;
        bool saving = true;
        char c;
        for (unsigned i = 0; i < saves && saving; i++)
            saving = read(progress[0], &c, 1) == 1;
        auto kill_at = std::chrono::steady_clock::now() + std::chrono::microseconds(rng() % 1500);
        while (std::chrono::steady_clock::now() < kill_at) {
        }
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        close(progress[0]);
        ASSERT_TRUE(saving) << "the saver stopped on its own in round " << round;

        std::string on_disk = read_file(path);
        ASSERT_TRUE(on_disk == a_file || on_disk == b_file) << "round " << round << ": " << on_disk.size() << " bytes";
        reset_config();
        ASSERT_EQ(0, tovak_config_load_file(path.c_str())) << round;
        EXPECT_EQ(on_disk, tovak_config_text()) << round;
    }
}

// Edits acknowledged by a finished save are all in the file at the end,
// however the threads interleave; readers meanwhile see whole lists.
TEST_F(ConfigSave, ThreadsEditingAndSavingAtOnceLoseNoAcknowledgedEdit)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    const int writers = 6;
    const int edits = 40;
    std::atomic<bool> done{ false };
    std::atomic<int> bad_reads{ 0 };
    std::vector<std::thread> threads;
    for (int t = 0; t < writers; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < edits; i++) {
                uint32_t id = 20000 + uint32_t(t * 100 + i);
                tovak_config_add_event(id);
                tovak_config_add_log(id);
                tovak_config_add_msg(id, 1u << (i % 32));
                tovak_config_add_dpl_if(id);
                // Every other id is taken back out again.
                if (i % 2 == 1) {
                    tovak_config_rm_event(id - 1);
                    tovak_config_rm_msg(id - 1);
                }
                tovak_config_save_file(path.c_str());
            }
        });
    }
    for (int r = 0; r < 2; r++) {
        threads.emplace_back([&] {
            while (!done) {
                uint16_t* ids = nullptr;
                int n = 0;
                if (tovak_config_get_events(&ids, &n) != 0 || n < 0) {
                    bad_reads++;
                    continue;
                }
                for (int i = 1; i < n; i++) {
                    if (ids[i - 1] >= ids[i])
                        bad_reads++;
                }
                free(ids);
                tovak_msg_entry* msgs = nullptr;
                if (tovak_config_get_msgs(&msgs, &n) != 0)
                    bad_reads++;
                free(msgs);
                if (std::string(tovak_config_text()).rfind(CONFIG_FILE_HEAD, 0) != 0)
                    bad_reads++;
            }
        });
    }
    for (int t = 0; t < writers; t++)
        threads[size_t(t)].join();
    done = true;
    for (size_t t = writers; t < threads.size(); t++)
        threads[t].join();
    EXPECT_EQ(0, bad_reads.load());

    reset_config();
    ASSERT_EQ(0, tovak_config_load_file(path.c_str()));
    ConfigSnapshot s = config_snapshot();
    std::set<uint16_t> events(s.events.begin(), s.events.end());
    std::set<uint16_t> logs(s.log_codes.begin(), s.log_codes.end());
    std::set<uint16_t> ifs(s.dpl_ifs.begin(), s.dpl_ifs.end());
    for (int t = 0; t < writers; t++) {
        for (int i = 0; i < edits; i++) {
            uint16_t id = uint16_t(20000 + t * 100 + i);
            bool kept = i % 2 == 1;
            EXPECT_EQ(kept, events.count(id) == 1) << id;
            EXPECT_EQ(1u, logs.count(id)) << id;
            EXPECT_EQ(1u, ifs.count(id)) << id;
            EXPECT_EQ(kept, s.messages.count(id) == 1) << id;
            if (kept) {
                EXPECT_EQ(1u << (i % 32), s.messages[id]) << id;
            }
        }
    }
    EXPECT_EQ(14u + writers * edits / 2, s.events.size());
}

// Clients reloading, choosing files and saving while others edit: the
// record stays whole and what is saved last loads back as it was.
TEST_F(ConfigSave, ReloadsAndSavesInterleavedKeepTheRecordWhole)
{
    tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    tovak_config_save_file(path.c_str());
    {
        tovak_config_locked c;
        snprintf(c.file_name(), TOVAK_CONFIG_FILE_NAME_SIZE, "%s", path.c_str());
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 60; i++) {
                switch ((t + i) % 4) {
                case 0:
                    tovak_config_add_event(uint32_t(i));
                    break;
                case 1:
                    tovak_config_save_file(tovak_config_get_file());
                    break;
                case 2:
                    tovak_config_reload();
                    break;
                case 3:
                    tovak_config_load_text(i % 8 == 3 ? DEFAULT_CONFIG_TEXT : "<EventIDs>1</EventIDs>");
                    break;
                }
            }
        });
    }
    for (auto& t : threads)
        t.join();
    tovak_config_save_file(path.c_str());
    std::string saved = tovak_config_text();
    reset_config();
    ASSERT_EQ(0, tovak_config_load_file(path.c_str()));
    EXPECT_EQ(saved, tovak_config_text());
    EXPECT_EQ(std::set<std::string>{ "dm.cfg" }, dir_entries(dir.path()));
}

} // namespace
