// The simulated device inside the sandbox: `tovak-sim up` starts
// tovak-devsim before the daemon, `tovak-sim ctl` drives it from outside.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <optional>
#include <regex>

#include "devsim_ctl.h"
#include "hdlc.h"
#include "host_link.h"
#include "le.h"
#include "platform/diag.h"
#include "sim_device.h"
#include "sim_root.h"

namespace {

using nlohmann::json;

mode_t file_type(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & S_IFMT : 0;
}

TEST(DevsimInSandbox, ServesItsDevicePathsAndTheDaemonsLogLines)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    for (const char* s : { "diag", "logdw", "qmi_tovak", "tovak_devsim" })
        EXPECT_EQ(S_IFSOCK, file_type(dev.path(std::string("dev/socket/") + s))) << s;
    for (const char* f : { "main", "radio", "events", "system" })
        EXPECT_EQ(S_IFIFO, file_type(dev.path(std::string("dev/log/") + f))) << f;
    // The daemon's start-up switches the mode for its range queries and back.
    ASSERT_TRUE(dev.wait_stdout("tovak handler is initialized successfully\n"));
    const std::string logcat = dev.path(SIM_LOGCAT_FILE);
    const std::regex line(R"( D TAMBOUR_TOVAK: tovak daemon initialized = 0\n)");
    EXPECT_TRUE(wait_until([&] { return std::regex_search(read_file(logcat), line); })) << read_file(logcat);
    json st = devsim_status(dev.root());
    ASSERT_FALSE(st.is_discarded());
    EXPECT_FALSE(st["modems"]["remote"]["enabled"]);
    EXPECT_EQ(1, st["mode"]);
    EXPECT_GT(st["logger"]["main"]["received"], 0);
    EXPECT_EQ(std::string::npos, read_file(dev.path("launcher.err")).find("D/TOVAK(")) << "no stderr fallback";
}

TEST(DevsimInSandbox, RemoteModemOptionAttachesIt)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start({ "--remote-modem" })) << dev.failure();
    json st = devsim_status(dev.root());
    ASSERT_FALSE(st.is_discarded());
    EXPECT_TRUE(st["modems"]["remote"]["enabled"]);
}

TEST(DevsimInSandbox, LibrariesOutsideReachTheSandboxedModemUntilItStops)
{
    SimDevice dev;
    ASSERT_TRUE(dev.start()) << dev.failure();
    // The daemon's own start-up asks the modem too; let it finish first.
    ASSERT_TRUE(dev.wait_stdout("tovak handler is initialized successfully\n"));
    sim_host_set_root(dev.root());
    EXPECT_EQ(0, diag_init());
    EXPECT_EQ(50000000, diag_change_buffer_size(50000000));
    std::vector<uint8_t> frame = { 32, 0, 0, 0 };
    std::vector<uint8_t> f = hdlc_frame({ 0x81, 0, 0, 0 });
    frame.insert(frame.end(), f.begin(), f.end());
    diag_rsp_type* rsp = diag_send_wait_rsp(frame.data(), int(frame.size()), 1, nullptr);
    ASSERT_NE(nullptr, rsp);
    std::vector<uint8_t> ans;
    ASSERT_EQ(HdlcResult::ok, hdlc_unframe(rsp->data, rsp->length, &ans));
    diag_free_rsp(rsp);
    ASSERT_GE(ans.size(), 6u);
    EXPECT_EQ(2200, get_u16(&ans[4]));
    sim_host_set_root("");
    json st = devsim_status(dev.root());
    EXPECT_EQ(50000000, st["buffer_size"]);
    EXPECT_EQ("81000000", st["requests"].back()["request"]);

    EXPECT_EQ(0, dev.stop());
    // The sandbox's processes are killed with it, a moment later.
    std::string err;
    EXPECT_TRUE(wait_until([&] {
        return devsim_ctl(dev.root(), { "status" }, nullptr, &err) == 1 &&
               err.find("no device simulator") != std::string::npos;
    })) << err;
}

} // namespace
