// tovak-sim up: provisioning of a device root, its refusals, and stopping
// without leaving anything behind.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "sim_device.h"

namespace {

// Parent of each process, from the host's /proc.
pid_t parent_of(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream rest(stat.substr(close + 2));
    char state;
    pid_t ppid = -1;
    rest >> state >> ppid;
    return ppid;
}

std::set<pid_t> descendants(pid_t root)
{
    std::set<pid_t> found = { root };
    bool grew = true;
    while (grew) {
        grew = false;
        DIR* dir = opendir("/proc");
        while (dirent* e = dir ? readdir(dir) : nullptr) {
            pid_t pid = atoi(e->d_name);
            if (pid > 0 && !found.count(pid) && found.count(parent_of(pid))) {
                found.insert(pid);
                grew = true;
            }
        }
        if (dir)
            closedir(dir);
    }
    return found;
}

bool alive(pid_t pid)
{
    // A zombie still has a /proc entry but no exe link.
    return kill(pid, 0) == 0 && parent_of(pid) > 0 && read_file("/proc/" + std::to_string(pid) + "/stat").find(") Z") == std::string::npos;
}

std::vector<std::string> up(const SimDevice& dev)
{
    return { SimDevice::bin("tovak-sim"), "up", dev.root() };
}

TEST(Launcher, ProvisionsADeviceRoot)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    for (const char* dir : { "system/etc", "data/media/0", "data/local", "data/property", "dev/log", "dev/ps_socket",
                             "dev/socket" }) {
        struct stat st;
        EXPECT_EQ(0, stat(dev.path(dir).c_str(), &st)) << dir;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
    }
    for (const char* name : { "dm.cfg", "EventID.txt", "LogItem.txt", "MessageLevel.txt" })
        EXPECT_EQ(read_file(std::string(TOVAK_SOURCE_DIR "/etc/") + name), read_file(dev.path("system/etc/") + name));
    EXPECT_EQ("1", dev.property("dev.bootcomplete"));
}

TEST(Launcher, CanLeaveBootCompleteUnset)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    ASSERT_EQ(0, dev.stop());
    ASSERT_TRUE(dev.start({ "--no-bootcomplete" })) << dev.failure();
    EXPECT_FALSE(file_exists(dev.path("data/property/dev.bootcomplete")));
}

TEST(Launcher, KeepsAnExistingSystemPartitionAndUserFiles)
{
    SimDevice dev;
    ASSERT_EQ(0, mkdir(dev.path("system").c_str(), 0755));
    ASSERT_EQ(0, mkdir(dev.path("system/etc").c_str(), 0755));
    // No EventID.txt on this system partition.
    for (const char* name : { "dm.cfg", "LogItem.txt", "MessageLevel.txt" })
        ASSERT_TRUE(write_file(dev.path("system/etc/") + name, std::string("factory ") + name + "\n"));
    ASSERT_EQ(0, system(("mkdir -p " + dev.path("data/media/0")).c_str()));
    ASSERT_TRUE(write_file(dev.path("data/media/0/dm.cfg"), "the user's own\n"));

    ASSERT_TRUE(dev.start()) << dev.failure();
    ASSERT_TRUE(dev.wait_stdout("tovak daemon initialized = -1\n"));
    EXPECT_FALSE(file_exists(dev.path("system/etc/EventID.txt")));
    EXPECT_EQ("the user's own\n", read_file(dev.path("data/media/0/dm.cfg")));
    EXPECT_FALSE(file_exists(dev.path("data/local/EventID.txt")));
    EXPECT_EQ("factory LogItem.txt\n", read_file(dev.path("data/local/LogItem.txt")));
    EXPECT_EQ("factory MessageLevel.txt\n", read_file(dev.path("data/local/MessageLevel.txt")));

    std::string out = dev.daemon_stdout();
    EXPECT_NE(std::string::npos, out.find("User file already exists /data/media/0/dm.cfg\n"));
    EXPECT_NE(std::string::npos, out.find("Fatal Error: src file /system/etc/EventID.txt doesn't exist\n"));
    EXPECT_NE(std::string::npos, out.find("tovak_daemon_init() = -1\n"));
    // One ERR line from the failed copy and one for the whole step, before
    // any session (the harness's probe is one) adds its own.
    std::string startup = out.substr(0, out.find("server: got connection"));
    size_t errs = 0;
    for (size_t pos = startup.find("tovak ERR >> "); pos != std::string::npos; pos = startup.find("tovak ERR >> ", pos + 1))
        errs++;
    EXPECT_EQ(2u, errs) << out;

    // Still serving.
    auto c = dev.connect();
    tovak_pkt reply;
    EXPECT_EQ(TovakStatus::ok, c->system_command("@@#ps", &reply));
}

TEST(Launcher, RefusesASecondDaemonOnTheSameRoot)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    std::string err;
    EXPECT_EQ(1, SimDevice::run(up(dev), nullptr, &err));
    EXPECT_NE(std::string::npos, err.find("already runs")) << err;
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    auto c = dev.connect();
    tovak_pkt reply;
    EXPECT_EQ(TovakStatus::ok, c->system_command("@@#ps", &reply));
}

TEST(Launcher, SaysClearlyWhatIsWrong)
{
    TempDir dir;
    ASSERT_TRUE(write_file(dir.path() + "/plain-file", "x"));
    struct Case {
        const char* name;
        std::vector<std::string> argv;
        int status;
        const char* says;
    };
    const std::string sim = SimDevice::bin("tovak-sim");
    const Case cases[] = {
        { "no bubblewrap", { "/usr/bin/env", "PATH=/nonexistent", sim, "up", dir.path() + "/r1" }, 1, "bubblewrap" },
        { "root is a file", { sim, "up", dir.path() + "/plain-file" }, 1, "plain-file" },
        { "root under a file", { sim, "up", dir.path() + "/plain-file/r" }, 1, "plain-file" },
        { "no root", { sim, "up" }, 2, "usage" },
        { "unknown option", { sim, "up", dir.path() + "/r2", "--frobnicate" }, 2, "usage" },
        { "unknown command", { sim, "down" }, 2, "usage" },
    };
    for (const Case& c : cases) {
        std::string err;
        EXPECT_EQ(c.status, SimDevice::run(c.argv, nullptr, &err)) << c.name;
        EXPECT_NE(std::string::npos, err.find(c.says)) << c.name << ": " << err;
        if (c.status == 1) {
            EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << c.name << ": " << err;
        }
    }
}

class LauncherStop : public ::testing::TestWithParam<int> {};

TEST_P(LauncherStop, LeavesNoProcessBehind)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    // Something long-lived inside the sandbox besides the daemon.
    auto c = dev.connect();
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#cat /dev/null; sleep 3600 &", &reply));
    ASSERT_TRUE(dev.wait_stdout("Result of system command = 0\n"));
    std::set<pid_t> tree = descendants(dev.launcher_pid());
    ASSERT_GE(tree.size(), 4u); // launcher, bwrap, its init, the daemon and more

    pid_t launcher = dev.launcher_pid();
    EXPECT_EQ(0, dev.stop(GetParam()));
    for (pid_t pid : tree) {
        if (pid != launcher) {
            EXPECT_TRUE(wait_until([&] { return !alive(pid); })) << "pid " << pid << " outlived the launcher";
        }
    }
    EXPECT_FALSE(TovakClient().connect(dev.socket_path()));
}

INSTANTIATE_TEST_SUITE_P(Signals, LauncherStop, ::testing::Values(SIGTERM, SIGINT));

TEST(Launcher, RunsAsAnOrdinaryUser)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to switch to another user";
    passwd* nobody = getpwnam("nobody");
    if (nobody == nullptr)
        GTEST_SKIP() << "no user nobody";
    // nobody must be able to reach the build tree.
    if (access(SimDevice::bin("tovak-sim").c_str(), X_OK) != 0)
        GTEST_SKIP();
    TempDir dir;
    std::string root = dir.path() + "/root";
    ASSERT_EQ(0, mkdir(root.c_str(), 0755));
    ASSERT_EQ(0, chown(root.c_str(), nobody->pw_uid, nobody->pw_gid));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));

    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, STDOUT_FILENO);
        dup2(null_fd, STDERR_FILENO);
        if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
            _exit(126);
        execl(SimDevice::bin("tovak-sim").c_str(), "tovak-sim", "up", root.c_str(), (char*)nullptr);
        _exit(127);
    }
    bool up = wait_until([&] {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return true;
        TovakClient probe(1000);
        return probe.connect(root + "/dev/ps_socket/tovak");
    });
    bool exited = waitpid(pid, nullptr, WNOHANG) == pid;
    if (exited) {
        // Kernels that refuse unprivileged user namespaces cannot do this.
        GTEST_SKIP() << "bubblewrap could not run as an ordinary user here";
    }
    ASSERT_TRUE(up);
    TovakClient c;
    ASSERT_TRUE(c.connect(root + "/dev/ps_socket/tovak"));
    tovak_pkt reply;
    EXPECT_EQ(TovakStatus::ok, c.system_command("@@#cat /dev/null", &reply));
    EXPECT_TRUE(wait_until([&] { return read_file(root + "/sim/tovakd.stdout").find("Result of system command = 0") != std::string::npos; }));
    struct stat st;
    ASSERT_EQ(0, stat((root + "/data/media/0/dm.cfg").c_str(), &st));
    EXPECT_EQ(nobody->pw_uid, st.st_uid);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

} // namespace
