// tovak-sim up and tovakctl on simulated devices: the launcher's options and
// refusals, its init-like restarts, and what tovakctl tells a person.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "protocol/unix_socket.h"
#include "sim_device.h"

namespace {

const size_t npos = std::string::npos;

std::string ctl(const SimDevice& dev, std::vector<std::string> args, int* rc = nullptr)
{
    std::vector<std::string> argv = { SimDevice::bin("tovakctl"), "--root", dev.root() };
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out, err;
    int status = SimDevice::run(argv, &out, &err);
    if (rc)
        *rc = status;
    return out + err;
}

// The factory dm.cfg with one element's value replaced, as the user's file.
void user_config(const SimDevice& dev, const std::string& from, const std::string& to)
{
    std::string cfg = read_file(TOVAK_SOURCE_DIR "/etc/dm.cfg");
    ASSERT_NE(npos, cfg.find(from));
    cfg.replace(cfg.find(from), from.size(), to);
    ASSERT_EQ(0, system(("mkdir -p " + dev.path("data/media/0")).c_str()));
    ASSERT_TRUE(write_file(dev.path("data/media/0/dm.cfg"), cfg));
}

TEST(Launcher, UsageErrorsAndRefusalsMakeNothing)
{
    TempDir dir;
    const std::string root = dir.path() + "/r", tall = dir.path() + "/" + std::string(90, 't');
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* says;
    };
    const Case cases[] = {
        { { "up", "--remote-modem", root, "--frobnicate" }, 2, "unknown option --frobnicate" },
        { { "up", root, "--without-log", "mian" }, 2, "unknown log device 'mian'" },
        { { "up", "--remote-modem" }, 2, "no ROOT given" },
        { { "up", root, "--daemon-nofile", "x" }, 2, "bad --daemon-nofile 'x'" },
        { { "up", tall }, 1, "choose a ROOT of at most" },
        { { "up", "--etc", dir.path(), root }, 1, "no factory file" },
        { { "up", root, "--daemon", dir.path() + "/none" }, 1, "no daemon at" },
        { { "up", root, "--daemon-wrapper", "no-such-wrapper -x" }, 1, "cannot run the daemon wrapper" },
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv = { SimDevice::bin("tovak-sim") };
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        std::string err;
        EXPECT_EQ(c.status, SimDevice::run(argv, nullptr, &err)) << c.says;
        EXPECT_NE(npos, err.find(c.says)) << err;
        EXPECT_FALSE(file_exists(root) || file_exists(tall)) << c.says;
    }
}

TEST(Launcher, RestartsTheDaemonAsInitDoesThenGivesUp)
{
    TempDir dir;
    const std::string root = dir.path() + "/r", fake = dir.path() + "/fake-tovakd";
    // Killed by a signal at its first start, exits with status 3 after.
    ASSERT_TRUE(write_file(fake, "n=$(cat /tmp/n 2>/dev/null || echo 0); n=$((n+1)); echo $n >/tmp/n\n"
                                 "echo fake start $n; [ $n = 1 ] && kill -9 $$; exit 3\n"));
    ASSERT_EQ(0, system(("mkdir -p " + root + "/sim && echo earlier >" + root + "/sim/tovakd.stdout").c_str()));
    std::string err;
    EXPECT_EQ(1, SimDevice::run({ SimDevice::bin("tovak-sim"), "up", root, "--daemon-wrapper", "/bin/sh", "--daemon",
                                  fake, "--restart-delay", "50" },
                                nullptr, &err));
    for (const char* says : { "was killed by signal 9", "exited with status 3 after", "  | fake start 5\n",
                              "restarting tovakd in", "ended 5 times within 4 minutes; giving up" })
        EXPECT_NE(npos, err.find(says)) << says << ": " << err;
    std::string state = read_file(root + "/sim/tovakd.state");
    EXPECT_EQ(0u, state.find("pid 0\n")) << state;
    EXPECT_NE(npos, state.find("\nstate stopped\nstopped_at ")) << state;
    EXPECT_NE(npos, state.find("\nstarts 5\nlast_exit status 3\n")) << state;
    std::string out = read_file(root + "/sim/tovakd.stdout");
    EXPECT_EQ(0u, out.find("earlier\n--- tovak-sim: tovakd start 1 (pid ")) << out;
    EXPECT_NE(npos, out.find("fake start 5\n")) << out;
}

TEST(Launcher, DaemonOutOfDescriptorsExitsAndComesBackLogging)
{
    SimDevice dev;
    user_config(dev, "<LogState>off</LogState>", "<LogState>on</LogState>");
    ASSERT_TRUE(dev.start({ "--daemon-nofile", "24", "--restart-delay", "100" })) << dev.failure();
    std::vector<int> idle;
    auto state = [&] { return read_file(dev.path("sim/tovakd.state")); };
    EXPECT_TRUE(wait_until([&] {
        int fd = unix_socket_connect(dev.socket_path().c_str(), 1000);
        if (fd >= 0)
            idle.push_back(fd);
        return state().find("starts 2") != npos;
    }));
    for (int fd : idle)
        close(fd);
    EXPECT_NE(npos, state().find("last_exit status 1")) << state();
    EXPECT_TRUE(dev.wait_stdout("Failed to accept socket"));
    // LogState on: the new daemon logs again.
    EXPECT_TRUE(wait_until([&] { return ctl(dev, { "state" }) == "logging on\n"; }));
}

TEST(Launcher, SdcardReadonlyKeepsTheConfigurationAsItWas)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start({ "--sdcard-readonly" })) << dev.failure();
    std::string before = read_file(dev.path("data/media/0/dm.cfg"));
    EXPECT_NE(npos, ctl(dev, { "add-event", "5" }).find("tovakd could not save it: /sdcard/dm.cfg did not change"));
    EXPECT_EQ(0u, ctl(dev, { "events" }).find("5\n1498\n"));
    EXPECT_EQ(before, read_file(dev.path("data/media/0/dm.cfg")));
}

TEST(Tovakctl, StatusOfADeviceAndTheOutPathFromTheDaemonsLog)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    EXPECT_EQ("modem logs go to /sdcard/logs/dm from the next commit, the next capture commit's files to "
              "/sdcard/logs/ (later ones to /sdcard/syslog/ again); until tovakd restarts\n",
              ctl(dev, { "out-path", "/sdcard/logs/dm" }));
    int rc;
    nlohmann::json j = nlohmann::json::parse(ctl(dev, { "--json", "status" }, &rc), nullptr, false);
    EXPECT_EQ(0, rc) << j;
    EXPECT_EQ(nlohmann::json::array(), j["warnings"]);
    EXPECT_EQ("/sdcard/logs/dm", j["out_path"]);
    EXPECT_EQ("/sdcard/logs/", j["capture_dir"]);
    EXPECT_EQ(14, j["items"]["events"]);
    EXPECT_EQ("events", j["categories"][2]["name"]);
}

TEST(Tovakctl, ANegativeBufferSizeIsNamedAsTheCauseOfRefusals)
{
    SimDevice dev;
    user_config(dev, "<BufferSize>50000000</BufferSize>", "<BufferSize>-1</BufferSize>");
    ASSERT_TRUE(dev.start()) << dev.failure();
    int rc;
    EXPECT_NE(npos, ctl(dev, { "add-event", "5" }, &rc).find("start-up of modem logging failed"));
    EXPECT_EQ(1, rc);
    EXPECT_NE(npos, ctl(dev, { "status" }, &rc).find("holds the negative <BufferSize> -1"));
    EXPECT_EQ(1, rc);
}

} // namespace
