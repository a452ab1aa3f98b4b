// Saves through a temporary file: what they refuse to replace, what planted
// names can't do to them, and what a killed save leaves for the next.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <set>

#include "common/tovak_file.h"
#include "device_test.h"

namespace fs = std::filesystem;

namespace {

bool put(int fd, const std::string& text)
{
    return tovak_write_all(fd, text.data(), text.size());
}

std::set<std::string> names_in(const std::string& dir)
{
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir))
        names.insert(e.path().filename().string());
    return names;
}

mode_t mode_of(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

void make_socket(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof addr.sun_path);
    memcpy(addr.sun_path, path.c_str(), path.size());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    close(fd);
}

class File : public ::testing::Test {
protected:
    TempDir dir;
    std::string target = dir.path() + "/dm.cfg";
    std::string victim = dir.path() + "/victim";
};

// Nothing but a regular file is ever replaced, by either kind of save; a
// link is not followed. The node, and a link's target, stay as they were and
// no temporary file is left.
TEST_F(File, OnlyARegularFileIsReplaced)
{
    struct Case {
        const char* what;
        mode_t kind;
        std::function<void(const std::string&)> make;
    };
    const Case cases[] = {
        { "socket", S_IFSOCK, make_socket },
        { "fifo", S_IFIFO, [](const std::string& p) { ASSERT_EQ(0, mkfifo(p.c_str(), 0666)); } },
        { "directory", S_IFDIR, [](const std::string& p) { fs::create_directory(p); } },
        { "link to a file", S_IFLNK, [this](const std::string& p) { fs::create_symlink(victim, p); } },
        { "link to nothing", S_IFLNK, [this](const std::string& p) { fs::create_symlink(victim + ".new", p); } },
    };
    ASSERT_TRUE(write_file(victim, "victim's"));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        c.make(target);
        const std::set<std::string> before = names_in(dir.path());
        int fills = 0;
        auto fill = [&](int fd) { return ++fills, put(fd, "new"); };
        EXPECT_FALSE(tovak_file_replace(target.c_str(), fill));
        EXPECT_FALSE(tovak_file_create(target.c_str(), fill));
        EXPECT_EQ(0, fills) << "refused before writing anything";
        EXPECT_EQ(c.kind, kind(target));
        EXPECT_EQ("victim's", read_file(victim));
        EXPECT_FALSE(file_exists(victim + ".new"));
        EXPECT_EQ(before, names_in(dir.path()));
        fs::remove(target);
    }
}

// A file of that name replaced or made, exactly; a new one is 0666 whatever
// the umask, an old one keeps its mode; a file that is there already is
// never replaced by a create.
TEST_F(File, RegularFilesAreReplacedAndCreatedWhole)
{
    const mode_t umask_was = umask(022);
    EXPECT_TRUE(tovak_file_create(target.c_str(), [](int fd) { return put(fd, "one"); }));
    EXPECT_EQ("one", read_file(target));
    EXPECT_EQ(0666u, mode_of(target));
    EXPECT_FALSE(tovak_file_create(target.c_str(), [](int fd) { return put(fd, "two"); }));
    EXPECT_EQ("one", read_file(target));

    ASSERT_EQ(0, chmod(target.c_str(), 0640));
    EXPECT_TRUE(tovak_file_replace(target.c_str(), [](int fd) { return put(fd, "three\n"); }));
    EXPECT_EQ("three\n", read_file(target));
    EXPECT_EQ(0640u, mode_of(target));
    umask(umask_was);

    // A relative path saves in the working directory.
    const fs::path cwd = fs::current_path();
    fs::current_path(dir.path());
    EXPECT_TRUE(tovak_file_replace("dm.cfg", [](int fd) { return put(fd, "four"); }));
    fs::current_path(cwd);
    EXPECT_EQ("four", read_file(target));

    // With no standard input the folder is opened as descriptor 0, and
    // closed again.
    const int in = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_TRUE(tovak_file_replace(target.c_str(), [](int fd) { return put(fd, "four"); }));
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "left open";
    dup2(in, STDIN_FILENO);
    close(in);

    for (const char* bad : { "", "/", ".", "..", (const char*)nullptr })
        EXPECT_FALSE(tovak_file_replace(bad, [](int fd) { return put(fd, "x"); })) << (bad ? bad : "null");

    // A fill that fails leaves the old file and nothing beside it.
    const std::set<std::string> before = names_in(dir.path());
    EXPECT_FALSE(tovak_file_replace(target.c_str(), [](int fd) { return put(fd, "half") && false; }));
    EXPECT_EQ("four", read_file(target));
    EXPECT_EQ(before, names_in(dir.path()));
}

// What a hostile client plants at the usual temporary name, and at names of
// the random form, never redirects a write or stops a save. Of it, only
// regular files are cleared, and unlinking a hard link leaves its other
// name whole.
TEST_F(File, PlantedNamesNeitherRedirectNorStopSaves)
{
    const std::string fixed = dir.path() + "/.dm.cfg.tmp";
    struct Case {
        const char* what;
        mode_t left; // what stays at the usual name: 0 nothing
        std::function<void()> plant;
    };
    const Case cases[] = {
        { "hard link", 0, [&] { fs::create_hard_link(victim, fixed); } },
        { "link", S_IFLNK, [&] { fs::create_symlink(victim, fixed); } },
        { "dangling link", S_IFLNK, [&] { fs::create_symlink(victim + ".new", fixed); } },
        { "fifo", S_IFIFO, [&] { ASSERT_EQ(0, mkfifo(fixed.c_str(), 0666)); } },
        { "directory", S_IFDIR, [&] { fs::create_directory(fixed); } },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(write_file(victim, "victim's"));
        ASSERT_TRUE(write_file(target, "old"));
        c.plant();
        // Of the random form: a link, a directory, a hard link; and a name
        // one letter short.
        const std::string form = fixed + ".AAAAAAA";
        fs::create_symlink(victim, form + "L");
        fs::create_directory(form + "D");
        ASSERT_TRUE(write_file(form + "D/inside", "kept"));
        fs::create_hard_link(victim, form + "H");
        ASSERT_TRUE(write_file(form, "not ours"));

        for (const char* text : { "first", "second" }) {
            EXPECT_TRUE(tovak_file_replace(target.c_str(), [&](int fd) { return put(fd, text); }));
            EXPECT_EQ(text, read_file(target));
        }
        EXPECT_EQ("victim's", read_file(victim));
        EXPECT_FALSE(file_exists(victim + ".new"));
        EXPECT_EQ(1u, fs::hard_link_count(victim));
        EXPECT_EQ(c.left, kind(fixed));
        EXPECT_EQ("kept", read_file(form + "D/inside"));
        std::set<std::string> want = { "dm.cfg", "victim", ".dm.cfg.tmp.AAAAAAAL", ".dm.cfg.tmp.AAAAAAAD",
                                       ".dm.cfg.tmp.AAAAAAA" };
        if (c.left != 0)
            want.insert(".dm.cfg.tmp");
        EXPECT_EQ(want, names_in(dir.path()));
        for (const std::string& name : names_in(dir.path()))
            fs::remove_all(dir.path() + "/" + name);
    }
}

} // namespace
