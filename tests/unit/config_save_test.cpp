// Saving dm.cfg: whole files only, whatever happens meanwhile (a full disk,
// a read-only directory, SIGKILL, other threads editing and saving).
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "config_test_support.h"
#include "sim_device.h"

namespace {

std::set<std::string> entries(const std::string& dir)
{
    std::set<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] != '.' || (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0))
            names.insert(e->d_name);
    }
    if (d)
        closedir(d);
    return names;
}

class ConfigSave : public ::testing::Test {
protected:
    void SetUp() override
    {
        reset_config();
        tovak_config_load_text(DEFAULT_CONFIG_TEXT);
    }
    void TearDown() override { reset_config(); }

    TempDir dir;
    std::string path = dir.path() + "/dm.cfg";
};

TEST_F(ConfigSave, ReplacesTheFileWholeKeepingItsModeAndLinks)
{
    ASSERT_TRUE(write_file(dir.path() + "/.dm.cfg.tmp", "left by a crash"));
    ASSERT_TRUE(write_file(path, "old"));
    ASSERT_EQ(0, chmod(path.c_str(), 0640));
    ASSERT_EQ(0, symlink("dm.cfg", (dir.path() + "/link").c_str()));
    EXPECT_EQ(0, tovak_config_save_file((dir.path() + "/link").c_str()));
    EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(path));
    EXPECT_EQ((std::set<std::string>{ "dm.cfg", "link" }), entries(dir.path()));
    struct stat st;
    ASSERT_EQ(0, lstat((dir.path() + "/link").c_str(), &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);
    // A new file gets 0666 under the daemon's umask 0.
    mode_t old = umask(0);
    tovak_config_save_file((dir.path() + "/new").c_str());
    umask(old);
    ASSERT_EQ(0, stat((dir.path() + "/new").c_str(), &st));
    EXPECT_EQ(0666u, st.st_mode & 07777);
    // Paths that name no writable file are left alone.
    for (const std::string& bad : { dir.path(), dir.path() + "/", dir.path() + "/none/dm.cfg", std::string() })
        EXPECT_EQ(0, tovak_config_save_file(bad.c_str())) << bad;
    EXPECT_EQ((std::set<std::string>{ "dm.cfg", "link", "new" }), entries(dir.path()));
}

// The save runs in a child whose writes fail; the old file stays whole and
// the child goes on serving.
TEST_F(ConfigSave, FullDiskOrReadOnlyDirectoryLeavesTheOldFileWhole)
{
    const std::function<bool()> make_writes_fail[] = {
        [] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit = { 100, 100 };
            return setrlimit(RLIMIT_FSIZE, &limit) == 0;
        },
        [&] {
            // Root writes anywhere: give the save an ordinary user.
            chmod(dir.path().c_str(), 0555);
            if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
                return false;
            return access(dir.path().c_str(), W_OK) != 0;
        },
    };
    tovak_config_save_file(path.c_str());
    tovak_config_load_text("<LogState>on</LogState><EventIDs>1 2 3</EventIDs>");
    for (const auto& fail : make_writes_fail) {
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            if (!fail())
                _exit(77);
            tovak_config_save_file(path.c_str());
            _exit(tovak_config_add_event(4) == 0 ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        chmod(dir.path().c_str(), 0700);
        if (WEXITSTATUS(status) == 77)
            GTEST_SKIP() << "cannot make writes fail here";
        EXPECT_EQ(0, status);
        EXPECT_EQ(DEFAULT_CONFIG_FILE_TEXT, read_file(path));
        EXPECT_EQ(std::set<std::string>{ "dm.cfg" }, entries(dir.path()));
    }
}

TEST_F(ConfigSave, SigkillDuringSavesLeavesOneWholeFile)
{
    // Two contents, large enough that a kill often lands inside a write.
    std::string texts[2] = { "<EventIDs>", "<LogState>on</LogState><LogCodes>" };
    for (int i = 0; i < 4000; i++) {
        texts[0] += std::to_string(i * 3) + ",";
        texts[1] += std::to_string(i * 5) + ",";
    }
    std::string files[2];
    for (int i = 0; i < 2; i++) {
        tovak_config_load_text(texts[i].c_str());
        files[i] = tovak_config_text();
    }
    tovak_config_save_file(path.c_str());
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
                tovak_config_save_file(path.c_str());
                if (write(progress[1], "s", 1) != 1)
                    _exit(1);
            }
        }
        close(progress[1]);
        // Let a few saves finish, then kill at a varied moment of the next.
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

        std::string on_disk = read_file(path);
        ASSERT_TRUE(on_disk == files[0] || on_disk == files[1]) << round << ": " << on_disk.size() << " bytes";
        reset_config();
        ASSERT_EQ(0, tovak_config_load_file(path.c_str()));
        EXPECT_EQ(on_disk, tovak_config_text());
    }
}

// An edit whose save has returned is in the file at the end, however the
// threads interleave; readers meanwhile see whole, ordered lists.
TEST_F(ConfigSave, ThreadsEditingAndSavingAtOnceLoseNoAcknowledgedEdit)
{
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
                tovak_config_add_dpl_if(id);
                if (i % 2 == 1)
                    tovak_config_rm_event(id - 1); // taken back out
                tovak_config_save_file(path.c_str());
            }
            while (t >= writers && !done) {
                uint16_t* ids = nullptr;
                int n = -1;
                bad_reads += tovak_config_get_events(&ids, &n) != 0;
                for (int i = 1; i < n; i++)
                    bad_reads += ids[i - 1] >= ids[i];
                free(ids);
                bad_reads += tovak_config_text().rfind(CONFIG_FILE_HEAD, 0) != 0;
            }
        });
    }
    for (int t = 0; t < writers; t++)
        threads[size_t(t)].join();
    done = true;
    threads[writers].join();
    threads[writers + 1].join();
    EXPECT_EQ(0, bad_reads.load());

    reset_config();
    ASSERT_EQ(0, tovak_config_load_file(path.c_str()));
    tovak_config_locked c;
    for (int t = 0; t < writers; t++) {
        for (int i = 0; i < edits; i++) {
            uint16_t id = uint16_t(20000 + t * 100 + i);
            EXPECT_EQ(i % 2 == 1, c->events->ids.count(id) == 1) << id;
            EXPECT_EQ(1u << (i % 32), c->messages->masks[id]) << id;
            EXPECT_EQ(1u, c->dpl_ifs->ids.count(id)) << id;
        }
    }
    EXPECT_EQ(14u + writers * edits / 2, c->events->ids.size());
}

} // namespace
