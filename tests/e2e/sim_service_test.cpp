// tovak-sim as a service manager runs it: in the background until down, a
// ready line, usage errors, and what the modem holds in a few lines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>

#include "device_test.h"

namespace {

const size_t npos = std::string::npos;

int sim(std::vector<std::string> args, std::string* out = nullptr, std::string* err = nullptr)
{
    args.insert(args.begin(), SimDevice::bin("tovak-sim"));
    return SimDevice::run(args, out, err);
}

TEST(SimService, UsageErrorsExit2AndNameTheWord)
{
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        { { "start", "/x" }, "unknown command 'start' (expected up, down or ctl)" },
        { { "up" }, "up: no ROOT given" },
        { { "up", "/x", "--detatch" }, "unknown option --detatch" },
        { { "ctl", "/x" }, "ctl: no COMMAND given" },
        { { "down" }, "down: no ROOT given" },
        { { "down", "/x", "extra" }, "down: unexpected 'extra'" },
    };
    for (const auto& [args, says] : cases) {
        std::string err;
        EXPECT_EQ(2, sim(args, nullptr, &err)) << args[0];
        EXPECT_NE(npos, err.find(says)) << err;
        EXPECT_LT(std::count(err.begin(), err.end(), '\n'), 3) << "the message, not the whole usage: " << err;
    }
    std::string out;
    EXPECT_EQ(0, sim({ "--version" }, &out));
    EXPECT_EQ(0u, out.find("tovak-sim ")) << out;
}

TEST(SimService, DetachedUntilDownThenTheStateSaysStopped)
{
    TempDir dir;
    const std::string root = dir.path() + "/r";
    std::string out, err;
    ASSERT_EQ(0, sim({ "up", "--detach", root, "--remote-modem" }, &out, &err)) << err;
    // It returned once tovakd serves: a client gets in at once.
    TovakClient client(5000);
    ASSERT_TRUE(client.connect(root + "/dev/ps_socket/tovak")) << client.error();
    EXPECT_EQ(0u, out.find("tovak-sim: ready: tovakd serves " + root + "/dev/ps_socket/tovak (pid ")) << out;
    EXPECT_NE(npos, read_file(root + "/sim/tovakd.state").find("state running"));
    EXPECT_EQ(1, sim({ "up", "--detach", root }, nullptr, &err));
    EXPECT_NE(npos, err.find("a daemon already runs on " + root)) << err;

    // The modem in a few lines, log codes in hex; unknown verbs are usage errors.
    ASSERT_TRUE(client.add_log(0xb0c0).done());
    ASSERT_TRUE(client.log_on().status == TovakStatus::ok);
    client.close();
    ASSERT_EQ(0, sim({ "ctl", root, "modem" }, &out, &err)) << err;
    EXPECT_NE(npos, out.find("local modem: event reporting on, 14 of 2200 event ids\n")) << out;
    EXPECT_NE(npos, out.find("remote modem: ")) << out;
    EXPECT_NE(npos, out.find("  log codes:  0x412f 0x713f")) << out;
    EXPECT_NE(npos, out.find("  messages:   5:3,4 15:3,4")) << out;
    EXPECT_LT(std::count(out.begin(), out.end(), '\n'), 12) << out;
    ASSERT_EQ(0, sim({ "ctl", root, "status" }, &out));
    EXPECT_NE(npos, out.find("\"0xb0c0\"")) << "log codes in hex in the status";
    EXPECT_EQ(2, sim({ "ctl", root, "frob" }, nullptr, &err));
    EXPECT_EQ(2, sim({ "ctl", root, "rate" }, nullptr, &err)) << "a verb without its argument";

    ASSERT_EQ(0, sim({ "down", root }, &out, &err)) << err;
    EXPECT_NE(npos, out.find("tovak-sim: stopped")) << out;
    EXPECT_FALSE(client.connect(root + "/dev/ps_socket/tovak")) << "down stops the daemon too";
    std::string state = read_file(root + "/sim/tovakd.state");
    EXPECT_EQ(0u, state.find("pid 0\n")) << state;
    EXPECT_NE(npos, state.find("\nstate stopped\nstopped_at ")) << state;
    EXPECT_EQ(1, sim({ "down", root }, nullptr, &err));
    EXPECT_NE(npos, err.find("no device runs on " + root)) << err;
}

// In the foreground: one ready line, the daemon's lines time-stamped as
// logcat's, a stopped line.
TEST(SimService, ForegroundReadyLineTimeStampsAndStoppedLine)
{
    TempDir dir;
    const std::string root = dir.path() + "/r", out_file = dir.path() + "/out";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int fd = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDOUT_FILENO);
        std::string bin = SimDevice::bin("tovak-sim");
        execl(bin.c_str(), bin.c_str(), "up", root.c_str(), nullptr);
        _exit(127);
    }
    ASSERT_TRUE(wait_until([&] { return read_file(out_file).find("tovak-sim: ready") != npos; }));
    EXPECT_EQ(0, sim({ "down", root }));
    EXPECT_EQ(0, wait_child(pid));
    std::string out = read_file(out_file);
    EXPECT_EQ(1u, count(out, "tovak-sim: ready: ")) << out;
    EXPECT_NE(npos, out.find("tovak-sim: stopped: tovakd and the device simulator ended\n")) << out;
    std::regex stamped(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d \d+: \[!\] TOVAKD Started)");
    EXPECT_TRUE(std::regex_search(out, stamped)) << out.substr(0, 400);
    // The file keeps the daemon's own lines as they were.
    EXPECT_NE(npos, read_file(root + "/sim/tovakd.stdout").find(": [!] TOVAKD Started"));
}

} // namespace
