// The real tovakctl program against a simulated device.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <set>
#include <sstream>

#include "sim_device.h"

namespace {

using json = nlohmann::json;

struct CtlRun {
    int rc;
    std::string out;
    std::string err;
};

class Tovakctl : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dev.start()) << dev.failure(); }

    CtlRun ctl(std::vector<std::string> args)
    {
        std::vector<std::string> argv = { SimDevice::bin("tovakctl"), "--root", dev.root() };
        argv.insert(argv.end(), args.begin(), args.end());
        CtlRun r;
        r.rc = SimDevice::run(argv, &r.out, &r.err);
        return r;
    }

    SimDevice dev;
};

TEST_F(Tovakctl, SystemRunsAndSaysTheReplyCannotTell)
{
    CtlRun r = ctl({ "system", "@@#cat /system/etc/EventID.txt > /data/local/ran" });
    EXPECT_EQ(0, r.rc) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("cannot tell whether it worked")) << r.out;
    EXPECT_TRUE(dev.wait_stdout("System command = 49, cat /system/etc/EventID.txt > /data/local/ran\n"));
    EXPECT_TRUE(dev.wait_stdout("Result of system command = 0\n"));
    EXPECT_EQ(read_file(dev.path("system/etc/EventID.txt")), read_file(dev.path("data/local/ran")));

    // Refused by the whitelist: the reply looks just the same.
    r = ctl({ "system", "ls" });
    EXPECT_EQ(0, r.rc);
    EXPECT_TRUE(dev.wait_stdout("System command ls is not allowed\n"));
}

TEST_F(Tovakctl, RefusalExits1AndSaysWhatTheReplyShows)
{
    // Refused however far the logging commands are built: size 0 is never taken.
    CtlRun r = ctl({ "log-size", "0" });
    EXPECT_EQ(1, r.rc);
    EXPECT_TRUE(r.out.empty()) << r.out;
    EXPECT_NE(std::string::npos, r.err.find("tovakctl: log-size: refused: the daemon")) << r.err;

    r = ctl({ "--json", "log-size", "0" });
    EXPECT_EQ(1, r.rc);
    json j = json::parse(r.out, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << r.out;
    EXPECT_EQ(true, j["refused"]);
    EXPECT_EQ("log-size", j["command"]);
    EXPECT_EQ(3, j["id"]);
}

TEST_F(Tovakctl, UnknownIdClosesTheSession)
{
    CtlRun r = ctl({ "raw", "0x15" });
    EXPECT_EQ(1, r.rc);
    EXPECT_NE(std::string::npos, r.err.find("closed")) << r.err;
    EXPECT_TRUE(dev.wait_stdout("cmd = 21\n"));
    EXPECT_TRUE(dev.wait_stdout("invalid cmd\n"));

    r = ctl({ "--json", "raw", "90" });
    EXPECT_EQ(1, r.rc);
    json j = json::parse(r.out, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << r.out;
    EXPECT_EQ(true, j["closed"]);
    EXPECT_EQ(true, j["refused"]);
    EXPECT_EQ(90, j["id"]);
}

TEST_F(Tovakctl, BadUsageExits2)
{
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             { "bogus" }, { "add-event", "x" }, { "capture" }, { "events", "1" } }) {
        CtlRun r = ctl(args);
        EXPECT_EQ(2, r.rc) << args[0];
        EXPECT_TRUE(r.out.empty());
        EXPECT_NE(std::string::npos, r.err.find("tovakctl: ")) << r.err;
    }
    // Nothing reached the daemon: only the harness's probe ever connected.
    EXPECT_EQ(std::string::npos, dev.daemon_stdout().find("process_pkt"));
}

TEST_F(Tovakctl, EveryQueryIsAnsweredAsJson)
{
    // Queries change nothing, so they can run whatever is built; none of
    // their ids may make the daemon close the session.
    const std::vector<std::vector<std::string>> queries = {
        { "events" }, { "logs" }, { "msgs" }, { "buffer-size" }, { "state" }, { "config-file" }, { "range" },
        { "capture-state" }, { "categories" }, { "category-names" }, { "capture-size", "0" }, { "capture-limits" },
        { "autosave" }, { "dpl-state" }, { "dpl-ifaces" }, { "dpl-list" },
    };
    for (const auto& q : queries) {
        std::vector<std::string> args = { "--json" };
        args.insert(args.end(), q.begin(), q.end());
        CtlRun r = ctl(args);
        EXPECT_TRUE(r.rc == 0 || r.rc == 1) << q[0] << ": " << r.err;
        json j = json::parse(r.out, nullptr, false);
        ASSERT_FALSE(j.is_discarded()) << q[0] << ": " << r.out << r.err;
        EXPECT_EQ(q[0], j["command"]);
        EXPECT_FALSE(j.contains("closed")) << q[0];
        EXPECT_TRUE(j.contains("reply_len")) << q[0];
        EXPECT_EQ(j["refused"] == true, r.rc == 1) << q[0];
    }
}

TEST_F(Tovakctl, HelpListsEverySubcommandWithItsId)
{
    CtlRun r = ctl({ "--help" });
    EXPECT_EQ(0, r.rc);
    // The daemon's commands, by the names tovakctl gives them.
    const std::set<std::string> want = {
        "0x00 log-on", "0x01 log-off", "0x03 log-size BYTES", "0x04 out-path PATH", "0x05 commit",
        "0x06 add-event ID", "0x07 rm-event ID", "0x08 events", "0x09 add-log CODE", "0x0a rm-log CODE",
        "0x0b logs", "0x0c add-msg SSID LEVEL...|--mask M", "0x0d rm-msg SSID", "0x0e msgs", "0x0f buffer-size",
        "0x10 state", "0x11 set-config-file PATH", "0x12 config-file", "0x13 system TEXT", "0x14 range",
        "0x2f capture on", "0x30 capture off", "0x32 capture-commit", "0x33 capture-state",
        "0x36 category-add N", "0x37 category-rm N", "0x38 categories", "0x39 categories-save",
        "0x3a category-names", "0x3b capture-size N BYTES", "0x3c capture-size N", "0x3d capture-limits",
        "0x46 autosave on|off", "0x47 save-modem-data phantom|statistics", "0x48 msisdn NUMBER", "0x49 autosave",
        "0x50 dpl on|off", "0x51 dpl-state", "0x52 dpl-ifaces", "0x53 dpl-list", "0x54 dpl-add ID",
        "0x55 dpl-reset", "any raw ID [HEX]",
    };
    std::set<std::string> listed;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("  0x", 0) != 0 && line.rfind("  any ", 0) != 0)
            continue;
        std::string id = line.substr(2, line.find(' ', 2) - 2);
        size_t at = line.find_first_not_of(' ', 2 + id.size());
        listed.insert(id + " " + line.substr(at, line.find("  ", at) - at));
    }
    EXPECT_EQ(want, listed);
}

} // namespace
