// The daemon's spine on a simulated device: start-up, provisioning, the
// socket, sessions and the shell diagnostics, seen over the real socket.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <regex>
#include <thread>

#include "protocol/tovak_cmd_ids.h"
#include "sim_device.h"
#include "sim_root.h"

namespace {

size_t count(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1))
        n++;
    return n;
}

// 0x13's payload; n is the length field, by default the text and its zero.
std::vector<uint8_t> system_payload(const std::string& text, int n = -1)
{
    if (n < 0)
        n = int(text.size() + 1);
    std::vector<uint8_t> p(2 + text.size() + 1, 0);
    p[0] = uint8_t(n);
    p[1] = uint8_t(n >> 8);
    memcpy(p.data() + 2, text.data(), text.size());
    return p;
}

// The sandbox's processes show in the host's /proc too. The duration is
// this test's own mark.
bool sleeper_running()
{
    DIR* dir = opendir("/proc");
    bool found = false;
    while (dirent* e = dir ? readdir(dir) : nullptr) {
        std::string cmdline = read_file(std::string("/proc/") + e->d_name + "/cmdline");
        if (cmdline == std::string("sleep\0" "7391\0", 11))
            found = true;
    }
    if (dir)
        closedir(dir);
    return found;
}

class Spine : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dev.start()) << dev.failure(); }

    // Sends one request on a connection of its own and reports whether a
    // reply came or the daemon closed the session.
    TovakStatus one_shot(uint32_t cmd, tovak_pkt* reply)
    {
        auto c = dev.connect();
        EXPECT_TRUE(c);
        return c->transact(cmd, nullptr, 0, reply);
    }

    SimDevice dev;
};

TEST_F(Spine, SocketHasRadioGroupAndDecimal666Mode)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "the socket's owner is set only when the sandbox runs as real root";
    struct stat st;
    ASSERT_EQ(0, stat(dev.socket_path().c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0u, st.st_uid);
    EXPECT_EQ(1001u, st.st_gid);
    EXPECT_EQ(01232u, st.st_mode & 07777);
}

TEST_F(Spine, ProvisionsUserFilesFromTheFactoryCopies)
{
    const char* const pairs[][2] = {
        { "data/media/0/dm.cfg", "system/etc/dm.cfg" },
        { "data/local/EventID.txt", "system/etc/EventID.txt" },
        { "data/local/LogItem.txt", "system/etc/LogItem.txt" },
        { "data/local/MessageLevel.txt", "system/etc/MessageLevel.txt" },
    };
    for (const auto& p : pairs) {
        std::string factory = read_file(dev.path(p[1]));
        EXPECT_FALSE(factory.empty()) << p[1];
        EXPECT_EQ(factory, read_file(dev.path(p[0]))) << p[0];
        struct stat st;
        ASSERT_EQ(0, stat(dev.path(p[0]).c_str(), &st));
        EXPECT_EQ(0666u, st.st_mode & 0777) << p[0];
    }
    EXPECT_TRUE(dev.wait_stdout("tovak_daemon_init() = 0\n"));
    // The same sandboxed path is reached as /sdcard.
    auto c = dev.connect();
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#cat /sdcard/dm.cfg > /data/local/seen", &reply));
    EXPECT_TRUE(wait_until([&] { return read_file(dev.path("data/local/seen")) == read_file(dev.path(pairs[0][1])); }));
}

TEST_F(Spine, LogLinesGoOutThreeWays)
{
    ASSERT_TRUE(dev.wait_stdout("tovak daemon initialized = 0\n"));
    std::string out = dev.daemon_stdout();
    // stdout: the source line, then the message.
    EXPECT_TRUE(std::regex_search(out, std::regex(R"((^|\n)\d+: \.{47}\n\d+: \[!\] TOVAKD Started ver 20121221  ver\. 4\.05\n\d+: \.{47}\n)")))
        << out;
    EXPECT_TRUE(std::regex_search(out, std::regex(R"((^|\n)\d+: tovak daemon initialized = 0\n)")));
    // The Android log copy, under each line's own tag, in the logger's
    // threadtime text file.
    const std::string logcat = dev.path(SIM_LOGCAT_FILE);
    ASSERT_TRUE(wait_until([&] { return read_file(logcat).find("tovak daemon initialized = 0") != std::string::npos; }));
    std::string log = read_file(logcat);
    EXPECT_TRUE(std::regex_search(log, std::regex(R"(\d+ D TAMBOUR_TOVAK: tovak daemon initialized = 0\n)"))) << log;
    EXPECT_TRUE(std::regex_search(log, std::regex(R"(\d+ D TOVAK   : \[!\] TOVAKD Started ver 20121221  ver\. 4\.05\n)")))
        << log;
}

TEST_F(Spine, UnknownIdsCloseTheSessionWithoutAReply)
{
    for (uint32_t id : { 0x15u, 0x2eu, 0x31u, 0x3eu, 0x4au, 0x59u }) {
        tovak_pkt reply;
        EXPECT_EQ(TovakStatus::closed, one_shot(id, &reply)) << id;
        EXPECT_TRUE(dev.wait_stdout("cmd = " + std::to_string(id) + "\n"));
    }
    EXPECT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), "invalid cmd\n") == 6; }));
}

TEST_F(Spine, IdsAbove89AreRefusedWithoutATableScan)
{
    for (uint32_t id : { 90u, 91u, 1000u }) {
        tovak_pkt reply;
        EXPECT_EQ(TovakStatus::closed, one_shot(id, &reply)) << id;
    }
    ASSERT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), "can't process cmd since there is no handler") == 3; }));
    std::string out = dev.daemon_stdout();
    EXPECT_EQ(0u, count(out, "invalid cmd"));
    EXPECT_NE(std::string::npos, out.find("cmd = 1000\n"));
}

TEST_F(Spine, DisconnectEndsTheSessionAtOnce)
{
    auto c = dev.connect();
    ASSERT_EQ(TovakStatus::ok, c->disconnect());
    EXPECT_TRUE(c->wait_closed());
    EXPECT_TRUE(dev.wait_stdout("server: got disconnection"));
    std::string out = dev.daemon_stdout();
    EXPECT_EQ(std::string::npos, out.find("dummy called"));
    EXPECT_EQ(std::string::npos, out.find("cmd = 2\n"));
}

TEST_F(Spine, RefusedCommandsStillAnswerAFullFrame)
{
    auto c = dev.connect();
    struct Case {
        uint32_t cmd;
        std::vector<uint8_t> payload;
    };
    const Case cases[] = {
        { CMD_ADBLOG_SET_SIZE, {} },                                       // no category and size
        { CMD_ADBLOG_SET_SIZE, { 0, 0, 0, 0 } },                           // size 0
        { CMD_SYSTEM_COMMAND, system_payload(std::string(199, 'x'), 200) }, // text too long
    };
    for (const Case& k : cases) {
        tovak_pkt reply;
        ASSERT_EQ(TovakStatus::ok, c->transact(k.cmd, k.payload.data(), uint32_t(k.payload.size()), &reply)) << k.cmd;
        EXPECT_EQ(5120u, reply.len) << k.cmd;
        EXPECT_EQ(0u, reply.cmd) << k.cmd;
    }
    EXPECT_TRUE(dev.wait_stdout("tovak_handler ERR >> "));
}

TEST_F(Spine, ClientThatGoesAwayIsTolerated11TimesThenClosed)
{
    // The harness's readiness probe was a session that went away too.
    ASSERT_TRUE(dev.wait_stdout("server: got disconnection"));
    const size_t before = count(dev.daemon_stdout(), "read size is zero\n");
    {
        auto c = dev.connect();
        tovak_pkt reply;
        ASSERT_EQ(TovakStatus::ok, c->system_command("ls", &reply));
    }
    ASSERT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), "server: got disconnection") == 2; }));
    std::string out = dev.daemon_stdout();
    EXPECT_EQ(12u, count(out, "read size is zero\n") - before);
    EXPECT_EQ(2u, count(out, "num_of_consecutive_zero_read exceeds 10"));
    EXPECT_EQ(2u, count(out, "<-- catch error\n"));
    EXPECT_NE(std::string::npos, out.find("tovak ERR >> "));
}

TEST_F(Spine, AShortReadIsAFrameWhoseRestIsLeftFromBefore)
{
    auto c = dev.connect();
    tovak_pkt reply;
    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#cat /system/etc/LogItem.txt > /data/local/copy1", &reply));
    // Only the header of a new frame: its payload is still the one above.
    uint32_t header[2] = { CMD_SYSTEM_COMMAND, 64 };
    ASSERT_EQ(TovakStatus::ok, c->send_bytes(header, sizeof header));
    ASSERT_EQ(TovakStatus::ok, c->read_reply(&reply));
    ASSERT_TRUE(wait_until([&] { return count(dev.daemon_stdout(), "Result of system command = 0\n") == 2; }));
    EXPECT_EQ(2u, count(dev.daemon_stdout(), "System command = 51, cat /system/etc/LogItem.txt > /data/local/copy1\n"));
}

TEST_F(Spine, ClientVanishingBeforeItsReplyLeavesTheDaemonServing)
{
    // The command blocks on a FIFO until the test opens it, so the client is
    // surely gone by the time the daemon writes its reply.
    std::string gate = dev.path("data/local/gate");
    ASSERT_EQ(0, mkfifo(gate.c_str(), 0666));
    {
        auto c = dev.connect();
        auto p = system_payload("@@#cat /data/local/gate > /dev/null");
        tovak_pkt req = {};
        req.cmd = CMD_SYSTEM_COMMAND;
        req.len = uint32_t(p.size());
        memcpy(req.data, p.data(), p.size());
        ASSERT_EQ(TovakStatus::ok, c->send_bytes(&req, sizeof req));
    }
    ASSERT_TRUE(dev.wait_stdout("System command = 36, cat /data/local/gate > /dev/null\n"));
    {
        std::ofstream open_gate(gate);
        open_gate << "go";
    }
    ASSERT_TRUE(dev.wait_stdout("Failed to write socket errno = %d\n"));
    EXPECT_TRUE(dev.wait_stdout("<-- catch error\n"));

    auto c = dev.connect();
    tovak_pkt reply;
    EXPECT_EQ(TovakStatus::ok, c->system_command("still there?", &reply));
}

TEST_F(Spine, ShellDiagnosticsRunRefuseAndKillByName)
{
    auto c = dev.connect();
    tovak_pkt reply;
    reply.len = 0;
    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#cat /system/etc/MessageLevel.txt", &reply));
    EXPECT_EQ(5120u, reply.len); // the reply never says what happened
    ASSERT_TRUE(dev.wait_stdout("Result of system command = 0\n"));
    EXPECT_NE(std::string::npos, dev.daemon_stdout().find(read_file(dev.path("system/etc/MessageLevel.txt"))));

    ASSERT_EQ(TovakStatus::ok, c->system_command("ls", &reply));
    EXPECT_TRUE(dev.wait_stdout("System command ls is not allowed\n"));

    // Allowed by prefix, fails in the shell.
    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#psx", &reply));
    EXPECT_TRUE(dev.wait_stdout("System command = 7, psx\n"));
    EXPECT_TRUE(dev.wait_stdout("Result of system command = 32512\n"));

    // A sleeper inside the sandbox, then kill by name.
    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#cat /dev/null; sleep 7391 &", &reply));
    ASSERT_TRUE(wait_until([&] { return sleeper_running(); }));
    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#+=killall sleep", &reply));
    ASSERT_TRUE(dev.wait_stdout("getProcessID(sleep) :Found. id = "));
    std::string out = dev.daemon_stdout();
    EXPECT_NE(std::string::npos, out.find("System command = 19, killall sleep\n"));
    EXPECT_NE(std::string::npos, out.find("killall process_name = sleep\n"));
    std::smatch m;
    ASSERT_TRUE(std::regex_search(out, m, std::regex(R"(getProcessID\(sleep\) :Found\. id = (\d+)\n)")));
    EXPECT_NE(std::string::npos, out.find("pid = " + m[1].str() + "\n"));
    EXPECT_TRUE(wait_until([&] { return !sleeper_running(); }));

    ASSERT_EQ(TovakStatus::ok, c->system_command("@@#+=killall no-such-thing", &reply));
    EXPECT_TRUE(dev.wait_stdout("getProcessID(no-such-thing) : id = 0 (could not find process)\n"));
    EXPECT_TRUE(dev.wait_stdout("Result of system command = -1\n"));
}

TEST_F(Spine, CommandTextLengthLimitIs199)
{
    auto c = dev.connect();
    tovak_pkt reply;
    std::string text = "@@#cat /dev/null #" + std::string(180, 'y'); // 198 characters
    ASSERT_EQ(198u, text.size());
    auto ok = system_payload(text, 199);
    ASSERT_EQ(TovakStatus::ok, c->transact(CMD_SYSTEM_COMMAND, ok.data(), uint32_t(ok.size()), &reply));
    EXPECT_TRUE(dev.wait_stdout("System command = 199, cat /dev/null #"));
    auto refused = system_payload(text + "z", 200);
    ASSERT_EQ(TovakStatus::ok, c->transact(CMD_SYSTEM_COMMAND, refused.data(), uint32_t(refused.size()), &reply));
    EXPECT_TRUE(dev.wait_stdout("tovak_handler ERR >> "));
    EXPECT_EQ(std::string::npos, dev.daemon_stdout().find("System command = 200"));
}

TEST_F(Spine, ManyClientsAtOnce)
{
    std::vector<std::thread> threads;
    std::atomic<int> good{ 0 };
    for (int i = 0; i < 16; i++) {
        threads.emplace_back([&] {
            auto c = dev.connect();
            if (!c)
                return;
            int ok = 0;
            for (int k = 0; k < 20; k++) {
                tovak_pkt reply;
                if (c->system_command("refused", &reply) == TovakStatus::ok && reply.len == 5120)
                    ok++;
            }
            if (ok == 20)
                good++;
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(16, good.load());
}

} // namespace
