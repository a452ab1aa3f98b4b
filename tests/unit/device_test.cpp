// The device's control verbs: what each does to the parts, and that a bad
// one is refused with a reason and changes nothing.
#include <gtest/gtest.h>

#include <fstream>

#include "device.h"
#include "sim_device.h"

namespace {

TEST(Device, ControlVerbs)
{
    TempDir root;
    Device d(root.path(), root.path() + "/sim");
    std::ofstream(root.path() + "/sim/tovakd.state") << "pid 0\nstarts 3\nlast_exit signal 9\n";
    // clang-format off
    const struct { std::vector<std::string> args; std::string reply_start; } table[] = {
        { { "rate", "5000" },                     "ok" },
        { { "rate", "fast" },                     "error: bad rate fast" },
        { { "fault", "silent", "on" },            "ok" },
        { { "fault", "logger-absent", "maybe" },  "error: logger-absent takes on or off" },
        { { "fault", "stall", "radio", "on" },    "ok" },
        { { "fault", "drop" },                    "error: usage: fault drop N" },
        { { "chatter", "on" },                    "ok" },
        { { "prop", "set", "dev.bootcomplete", "1" }, "ok" },
        { { "prop", "get", "dev.bootcomplete" },  "1" },
        { { "daemon-kill" },                      "error: no daemon runs" },
        { { "daemon-kill", "BOGUS" },             "error: bad signal BOGUS" },
        { { "disk", "fill", "sdcard" },           "error: give an absolute device path" },
        { { "disk", "fill", "/" },                "error: refusing to fill /:" },
        { { "disk", "free", "/" },                "error: / is not filled" },
        { { "qmi", "phantom", "10,0" },           "error: bad unit size 0" },
        { { "log", "kernel", "I", "t", "m" },     "error: no log buffer kernel" },
        { { "status", "extra" },                  "error: usage: status" },
        { { "frobnicate" },                       "error: unknown command 'frobnicate'" },
    };
    // clang-format on
    for (const auto& x : table)
        EXPECT_EQ(x.reply_start, d.control(x.args).substr(0, x.reply_start.size())) << x.args[0];
    nlohmann::json st = nlohmann::json::parse(d.control({ "status" }));
    EXPECT_EQ(5000, st["traffic_rate"]);
    EXPECT_TRUE(st["faults"]["silent"]);
    EXPECT_TRUE(st["logger"]["radio"]["stalled"]);
    EXPECT_TRUE(st["chatter"]);
    EXPECT_EQ(nlohmann::json({ { "pid", 0 }, { "starts", 3 }, { "last_exit", "signal 9" } }), st["daemon"]);
    EXPECT_EQ(0, st["qmi"]["units"]["phantom"].size()) << "refused edit changed nothing";

    // A silent modem answers no request and makes no traffic.
    const std::vector<uint8_t> req = { 32, 0, 0, 0, 0x60, 0x01, 0x9B, 0x7B, 0x7E }; // 60 01 framed
    LinkConnState conn;
    EXPECT_FALSE(d.handle_link(req.data(), req.size(), conn, 0).send);
    d.control({ "fault", "clear" });
    EXPECT_TRUE(d.handle_link(req.data(), req.size(), conn, 0).send);
    EXPECT_EQ("answered", d.status()["requests"].back()["outcome"]);
    EXPECT_FALSE(d.status()["logger"]["radio"]["stalled"]);
}

} // namespace
